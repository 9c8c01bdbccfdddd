#include "regtext/characters.h"

#include <utility>

namespace regtext {

namespace {

constexpr uint32_t ByteSurrogates = 0xDC00; // plus a byte of 0x80 and more

bool isHigh(uint32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool isLow(uint32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

void appendUnit(std::string& bytes, uint32_t unit)
{
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8 & 0xFF);
}

/// A character that does something to a terminal: controls, and those of the bidirectional algorithm.
bool disturbs(uint32_t c)
{
    return (c >= 0x7F && c < 0xA0) || c == 0x61C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

/// What would make an escape of a backslash in front of it.
bool isHexEscape(std::string_view text)
{
    return text.size() >= 3 && text[0] == 'x' && hexDigit(text[1]) >= 0 && hexDigit(text[2]) >= 0;
}

} // namespace

std::optional<uint32_t> takeUtf8(std::string_view text, size_t& at)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const uint32_t first = byte(at);
    if (first < 0x80) {
        ++at;
        return first;
    }
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() - at < length)
        return std::nullopt;
    uint32_t character = first & (0x7Fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80)
            return std::nullopt;
        character = character << 6 | (byte(at + i) & 0x3Fu);
    }
    constexpr uint32_t least[] = {0x80, 0x800, 0x10000};
    if (character < least[length - 2] || character > 0x10FFFF || (character >= 0xD800 && character < 0xE000))
        return std::nullopt;
    at += length;
    return character;
}

void appendUtf8(std::string& text, uint32_t character)
{
    if (character < 0x80) {
        text += static_cast<char>(character);
        return;
    }
    const int more = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr uint32_t marks[] = {0xC0, 0xE0, 0xF0};
    text += static_cast<char>(marks[more - 1] | character >> (6 * more));
    for (int i = more - 1; i >= 0; --i)
        text += static_cast<char>(0x80 | (character >> (6 * i) & 0x3F));
}

bool isUtf8(std::string_view text)
{
    for (size_t at = 0; at < text.size();)
        if ((text[at] & 0x80) == 0)
            ++at;
        else if (!takeUtf8(text, at))
            return false;
    return true;
}

size_t characters(std::string_view text)
{
    size_t count = 0;
    for (size_t at = 0; at < text.size(); ++count)
        if (!takeUtf8(text, at))
            ++at;
    return count;
}

std::string toUtf16(std::string_view text)
{
    std::string bytes;
    bytes.reserve(2 * text.size());
    for (size_t at = 0; at < text.size();) {
        const std::optional<uint32_t> character = takeUtf8(text, at);
        if (!character) {
            appendUnit(bytes, ByteSurrogates + static_cast<unsigned char>(text[at++]));
        } else if (*character >= 0x10000) {
            appendUnit(bytes, 0xD800 + ((*character - 0x10000) >> 10));
            appendUnit(bytes, 0xDC00 + (*character & 0x3FF));
        } else {
            appendUnit(bytes, *character);
        }
    }
    return bytes;
}

void Utf16Reader::read(std::string_view bytes, std::string& text)
{
    for (const char c : bytes) {
        const int byte = static_cast<unsigned char>(c);
        if (m_firstByte < 0) {
            m_firstByte = byte;
        } else {
            unit(static_cast<uint32_t>(m_firstByte | byte << 8), text);
            m_firstByte = -1;
        }
    }
}

void Utf16Reader::unit(uint32_t unit, std::string& text)
{
    const uint32_t high = m_high;
    m_high = 0;
    if (high != 0 && isLow(unit)) {
        appendUtf8(text, 0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00));
        return;
    }
    if (high != 0)
        lone(high, text);
    if (isHigh(unit))
        m_high = unit;
    else
        lone(unit, text);
}

void Utf16Reader::lone(uint32_t unit, std::string& text)
{
    if (unit >= ByteSurrogates + 0x80 && unit <= ByteSurrogates + 0xFF)
        text += static_cast<char>(unit - ByteSurrogates);
    else
        appendUtf8(text, unit);
}

bool Utf16Reader::finish(std::string& text)
{
    if (m_high != 0)
        lone(m_high, text);
    m_high = 0;
    return m_firstByte < 0;
}

std::optional<std::string> fromUtf16(std::string_view bytes)
{
    std::string text;
    Utf16Reader reader;
    reader.read(bytes, text);
    return reader.finish(text) ? std::optional(std::move(text)) : std::nullopt;
}

std::string folded(std::string_view text)
{
    std::string lower(text);
    for (char& c : lower)
        c = lowerCase(c);
    return lower;
}

std::string escaped(std::string_view text, Escape how)
{
    std::string result;
    const bool isData = how == Escape::Data || how == Escape::Quoted;
    const auto escape = [&](char c) {
        constexpr std::string_view plain("\t\n\r\0", 4);
        const size_t letter = isData ? plain.find(c) : std::string_view::npos;
        result += '\\';
        if (letter != std::string_view::npos)
            result += "tnr0"[letter];
        else
            result += 'x' + hexOf({&c, 1});
    };
    size_t backslashes = 0; // that end the result, on a screen: an escape may make them look like its own
    for (size_t at = 0; at < text.size();) {
        const size_t begin = at;
        const std::optional<uint32_t> character = takeUtf8(text, at);
        at += character ? 0 : 1;
        const bool harmless = how == Escape::Screen && (text[begin] == '\n' || text[begin] == '\t');
        const bool escapes =
            (isControl(text[begin]) && !harmless) || (how != Escape::Pipe && (!character || disturbs(*character)));
        if (escapes || isHexEscape(text.substr(begin)))
            result.append(std::exchange(backslashes, 0), '\\');
        if (escapes) {
            for (const char c : text.substr(begin, at - begin))
                escape(c);
            continue;
        }
        if ((text[begin] == '\\' && isData) || (text[begin] == '"' && how == Escape::Quoted))
            result += '\\';
        result += text.substr(begin, at - begin);
        backslashes = text[begin] == '\\' && how == Escape::Screen ? backslashes + 1 : 0;
    }
    return result;
}

std::string hexOf(std::string_view bytes)
{
    std::string hex(2 * bytes.size(), '\0');
    auto digit = hex.begin();
    for (const char c : bytes) {
        *digit++ = HexDigits[static_cast<unsigned char>(c) >> 4];
        *digit++ = HexDigits[c & 15];
    }
    return hex;
}

std::string hexOfNumber(uint64_t number, size_t leastDigits)
{
    std::string digits;
    for (; number != 0 || digits.size() < leastDigits; number >>= 4)
        digits.insert(digits.begin(), HexDigits[number & 15]);
    return digits;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace regtext
