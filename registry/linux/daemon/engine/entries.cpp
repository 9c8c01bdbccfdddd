#include "daemon/engine/entries.h"

#include <charconv>

#include "regtext/characters.h"

namespace obregd {

namespace {

constexpr std::string_view KeyWord = "key ";
constexpr std::string_view ValueWord = "value ";

std::string levels(std::string_view path) { return path.empty() ? "" : '\\' + regtext::folded(path); }

/// Takes a number, and the character behind it, off the front of a text.
template <class Number>
bool take(std::string_view& text, Number& number, char behind = ' ')
{
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || pEnd == text.data() + text.size() || *pEnd != behind)
        return false;
    text.remove_prefix(static_cast<size_t>(pEnd - text.data()) + 1);
    return true;
}

bool takeWord(std::string_view& text, std::string_view word)
{
    const bool isThere = text.starts_with(word);
    text.remove_prefix(isThere ? word.size() : 0);
    return isThere;
}

} // namespace

std::string EntryNames::key(std::string_view path) const { return m_prefix + 'k' + levels(path); }

std::string EntryNames::value(std::string_view path, std::string_view name) const
{
    return m_prefix + 'v' + levels(path) + '\0' + regtext::folded(name);
}

std::string EntryNames::token(uid_t uid, const std::string& token) const
{
    return m_prefix + 't' + std::to_string(uid) + '/' + token;
}

EntryNames::Parsed EntryNames::parse(std::string_view entry) const
{
    if (!entry.starts_with(m_prefix) || entry.size() == m_prefix.size())
        return {};
    Parsed parsed{entry[m_prefix.size()], std::string(entry.substr(m_prefix.size() + 1)), {}};
    if (parsed.kind != 'k' && parsed.kind != 'v')
        return parsed;
    const size_t end = parsed.path.find('\0');
    if ((end != std::string::npos) != (parsed.kind == 'v') ||
        (parsed.path[0] != '\\' && end != 0 && !parsed.path.empty()))
        return {};
    if (end != std::string::npos) {
        parsed.name = parsed.path.substr(end + 1);
        parsed.path.resize(end);
    }
    parsed.path.erase(0, 1);
    return parsed;
}

std::string keyText(const EntryText& key)
{
    return std::string(KeyWord) + std::to_string(key.time) + ' ' + std::to_string(key.uid) + ' ' +
           std::to_string(key.place) + '\n' + key.name;
}

std::string valueText(const EntryText& value)
{
    std::string text = std::string(ValueWord) + std::to_string(value.time) + ' ' + std::to_string(value.uid) + ' ' +
                       std::to_string(value.type) + ' ' + std::to_string(value.place) + ' ' +
                       std::to_string(value.name.size()) + '\n';
    text.reserve(text.size() + value.name.size() + value.data.size());
    return text += value.name, text += value.data;
}

std::optional<EntryText> parseEntry(std::string_view text)
{
    EntryText entry;
    if (takeWord(text, KeyWord)) {
        if (!take(text, entry.time) || !take(text, entry.uid) || !take(text, entry.place, '\n'))
            return std::nullopt;
        entry.name = text;
        return entry;
    }
    size_t length = 0;
    if (!takeWord(text, ValueWord) || !take(text, entry.time) || !take(text, entry.uid) || !take(text, entry.type) ||
        !take(text, entry.place) || !take(text, length, '\n') || length > text.size())
        return std::nullopt;
    entry.name = text.substr(0, length);
    entry.data = text.substr(length);
    return entry;
}

} // namespace obregd
