#include "daemon/store/history.h"

#include <algorithm>
#include <strings.h>

#include "common/wiretext.h"

namespace obregd {

namespace {

// What one answer looks at, and what it says at most, but for its last change.
constexpr int64_t MostRows = 50'000;
constexpr int64_t MostRowsOfOneKey = 400'000; // which SQLite skips by itself
constexpr int64_t MostChanges = 2000;
constexpr size_t LongestAnswer = size_t{256} * 1024;
constexpr size_t MostLookedAt = size_t{64} << 20; // bytes of keys' places: many rows of deep keys

std::string hex(const std::string& data)
{
    std::string text(2 * data.size(), '\0');
    char* pOut = text.data();
    for (const char byte : data)
        pOut = wiretext::putHex(pOut, static_cast<uint8_t>(byte));
    return text;
}

/// What was there: nothing when there was no such value; of a key, how many values went with it unnoted.
std::string formerText(const Change& change)
{
    if (!change.former)
        return "";
    const std::string length = std::to_string(change.former->length);
    if (isOfKey(change.kind))
        return "lost " + length;
    const auto& [type, bytes, data] = *change.former;
    return std::to_string(type) + ' ' + length + ' ' + (data ? hex(*data) : change.isSecret ? "secret" : "not-kept");
}

bool isSame(const std::string& a, const std::string& b) { return strcasecmp(a.c_str(), b.c_str()) == 0; }

/// Whether a path is, or is below, another.
bool isWithin(const std::string& path, const std::string& above)
{
    return above.empty() ||
           (strncasecmp(path.c_str(), above.c_str(), above.size()) == 0 &&
            (path.size() == above.size() || (path.size() > above.size() && path[above.size()] == '\\')));
}

} // namespace

std::string HistoryReader::answer(const HistoryQuestion& question)
{
    const int64_t last = m_journal.last();
    const int64_t first = m_journal.first();
    const bool oneKey = !question.subTree && question.path.empty();
    const int64_t rows = oneKey ? MostRowsOfOneKey : MostRows;
    const int64_t from = std::clamp<int64_t>(question.from, 0, last + 1);
    JournalReader::Stretch stretch{from, std::min(from + rows, last) + 1, false, {}};
    if (question.newestFirst)
        stretch = {std::max<int64_t>(from - 1 - rows, 0), from, true, {}};
    if (oneKey)
        stretch.key = question.key;
    int64_t next = question.newestFirst ? stretch.after + 1 : stretch.before - 1; // when all of it is looked at
    Places::Below known(question.key);
    const auto concerns = [&](const std::string& in, const std::string& changed) {
        return question.subTree ? isWithin(changed, question.path)
                                : isSame(in, question.path) || isSame(changed, question.path);
    };
    std::optional<std::string> in; // the path of the key whose values or sub-keys have changed, or which has itself
    const auto isEnough = [&] { return known.looked > MostLookedAt; };
    const auto wants = [&](ChangeKind kind, KeyId key, KeyId parent) {
        const bool ofKey = isOfKey(kind);
        const bool itself = ofKey && key == question.key;
        in = itself ? std::string() : m_places.pathBelow(ofKey ? parent : key, known);
        return isEnough() || (in && (ofKey || concerns(*in, *in)));
    };
    int64_t told = 0;
    std::string text;
    const auto tell = [&](const Change& change) {
        const bool ofKey = isOfKey(change.kind);
        const std::string path = ofKey && change.key != question.key ? joined(*in, change.name) : *in;
        if (!concerns(*in, path))
            return;
        text += std::to_string(change.number) + '\t' + std::to_string(change.time) + '\t' +
                std::to_string(change.author.uid) + '\t' + std::to_string(change.author.pid) + '\t' +
                ChangeNames[static_cast<int>(change.kind)] + '\t' + path + '\t' + (ofKey ? "" : change.name) + '\t' +
                formerText(change) + (change.isSecret ? "\tsecret" : "\t") + '\0';
        ++told;
    };
    const auto see = [&](const Change& change) {
        if (in)
            tell(change);
        if (told < std::min(question.most, MostChanges) && text.size() < LongestAnswer && !isEnough())
            return true;
        next = change.number;
        return false;
    };
    m_journal.read(stretch, wants, see);
    return std::to_string(next) + ' ' + std::to_string(first) + ' ' + std::to_string(last) + '\0' + text + '\0';
}

} // namespace obregd
