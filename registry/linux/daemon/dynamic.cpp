#include "daemon/dynamic.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <strings.h>

#include "daemon/store/clock.h"

namespace obregd {

namespace {

constexpr std::chrono::milliseconds LongestWait = std::chrono::minutes(10);

/// Takes a number off the front of a text, and the space behind it.
template <class Number>
bool takeNumber(const char*& pText, const char* pEnd, Number& number, int base)
{
    const auto [pNext, error] = std::from_chars(pText, pEnd, number, base);
    if (error != std::errc() || pNext == pEnd || *pNext != ' ')
        return false;
    pText = pNext + 1;
    return true;
}

/// Takes the id that ends a text, and the space in front of it.
bool takeId(const char* pText, const char* pEnd, uint64_t& id)
{
    if (pText == pEnd || *pText != ' ')
        return false;
    const auto [pNext, error] = std::from_chars(pText + 1, pEnd, id, 16);
    return error == std::errc() && pNext == pEnd && id != 0;
}

class DynamicTree : public Tree {
public:
    std::optional<Key> key(KeyId id) override
    {
        if (id == DynamicId)
            return Key{id, 0, NobodysOwner, timeNow(), static_cast<UINT32>(std::size(DynamicKeys)), 0};
        for (const DynamicKey& key : DynamicKeys)
            if (key.id == id)
                return Key{id, DynamicId, NobodysOwner, timeNow(), 0, 0};
        return std::nullopt;
    }

    std::optional<KeyId> child(KeyId parent, const std::string& name) override
    {
        for (const DynamicKey& key : DynamicKeys)
            if (parent == DynamicId && strcasecmp(name.c_str(), key.pName) == 0)
                return key.id;
        return std::nullopt;
    }

    bool wasIssued(KeyId /*id*/) override { return false; }
    std::optional<Value> value(KeyId /*key*/, const std::string& /*name*/) override { return std::nullopt; }

    std::optional<SubKeyEntry> subKeyAt(const Key& key, UINT32 index) override
    {
        if (index >= key.subKeys)
            return std::nullopt;
        return SubKeyEntry{DynamicKeys[index].pName, key.written};
    }

    std::optional<ValueEntry> valueAt(const Key& /*key*/, UINT32 /*index*/) override { return std::nullopt; }

    Longest longest(const Key& key) override
    {
        size_t name = 0;
        for (size_t i = 0; i < key.subKeys; ++i)
            name = std::max(name, std::strlen(DynamicKeys[i].pName));
        return {static_cast<UINT32>(name), 0, 0};
    }
};

} // namespace

const DynamicKey* dynamicKey(HANDLE handle)
{
    for (const DynamicKey& key : DynamicKeys)
        if (key.handle == reinterpret_cast<uintptr_t>(handle))
            return &key;
    return nullptr;
}

std::optional<ParsedWait> parseWait(const std::string& name)
{
    ParsedWait parsed{};
    const char* pText = name.data();
    const char* const pEnd = pText + name.size();
    int64_t milliseconds = 0;
    Wait& wait = parsed.wait;
    wait.ends = name.starts_with("end ");
    if (wait.ends)
        return takeId(pText + 3, pEnd, wait.id) ? std::optional(parsed) : std::nullopt;
    if (!takeNumber(pText, pEnd, parsed.handle, 16))
        return std::nullopt;
    wait.now = pEnd - pText > 4 && std::memcmp(pText, "now ", 4) == 0;
    if (wait.now)
        pText += 4;
    else if (!takeNumber(pText, pEnd, wait.watched.since, 10))
        return std::nullopt;
    if (!takeNumber(pText, pEnd, milliseconds, 10) || milliseconds < 0 || wait.watched.since < 0)
        return std::nullopt;
    const char* const pScopeEnd = std::find(pText, pEnd, ' ');
    const std::string scope(pText, pScopeEnd);
    if ((scope != "key" && scope != "tree") || (pScopeEnd != pEnd && !takeId(pScopeEnd, pEnd, wait.id)))
        return std::nullopt;
    wait.watched.subTree = scope == "tree";
    wait.atMost = std::min(std::chrono::milliseconds(milliseconds), LongestWait);
    return parsed;
}

std::optional<ParsedHistory> parseHistory(const std::string& name)
{
    ParsedHistory parsed{};
    HistoryQuestion& question = parsed.question;
    const char* pText = name.data();
    const char* const pEnd = pText + name.size();
    const auto takeWord = [&] {
        const char* const pBegin = pText;
        pText = std::find(pText, pEnd, ' ');
        return std::string(pBegin, pText == pEnd ? pText : pText++);
    };
    if (!takeNumber(pText, pEnd, parsed.handle, 16))
        return std::nullopt;
    question.from = HistoryQuestion::Now;
    if (pEnd - pText > 4 && std::memcmp(pText, "now ", 4) == 0)
        pText += 4;
    else if (!takeNumber(pText, pEnd, question.from, 10) || question.from < 0)
        return std::nullopt;
    const std::string direction = takeWord();
    question.newestFirst = direction == "before";
    if ((!question.newestFirst && direction != "after") || !takeNumber(pText, pEnd, question.most, 10) ||
        question.most <= 0)
        return std::nullopt;
    const std::string scope = takeWord();
    question.subTree = scope == "tree";
    question.path.assign(pText, pEnd);
    return question.subTree || scope == "key" ? std::optional(parsed) : std::nullopt;
}

std::string answerText(const Told& told)
{
    return std::to_string(told.upTo) + (told.lost ? " lost" : "") + '\0' + told.text + '\0';
}

std::string endedText(size_t waits) { return std::to_string(waits) + '\0' + '\0'; }

Tree& dynamicTree()
{
    static DynamicTree tree;
    return tree;
}

} // namespace obregd
