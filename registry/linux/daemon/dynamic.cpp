#include "daemon/dynamic.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <strings.h>

#include "daemon/store/clock.h"

namespace obregd {

namespace {

constexpr std::chrono::milliseconds LongestWait = std::chrono::minutes(10);
constexpr const char* Changes = "Changes";

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

class DynamicTree : public Tree {
public:
    std::optional<Key> key(KeyId id) override
    {
        if (id != DynamicId && id != ChangesId)
            return std::nullopt;
        const bool root = id == DynamicId;
        return Key{id, root ? 0 : DynamicId, NobodysOwner, timeNow(), root ? UINT32{1} : 0, 0};
    }

    std::optional<KeyId> child(KeyId parent, const std::string& name) override
    {
        if (parent != DynamicId || strcasecmp(name.c_str(), Changes) != 0)
            return std::nullopt;
        return ChangesId;
    }

    bool wasIssued(KeyId /*id*/) override { return false; }
    std::optional<Value> value(KeyId /*key*/, const std::string& /*name*/) override { return std::nullopt; }

    std::optional<SubKeyEntry> subKeyAt(const Key& key, UINT32 index) override
    {
        if (index >= key.subKeys)
            return std::nullopt;
        return SubKeyEntry{Changes, key.written};
    }

    std::optional<ValueEntry> valueAt(const Key& /*key*/, UINT32 /*index*/) override { return std::nullopt; }

    Longest longest(const Key& key) override
    {
        return {key.subKeys == 0 ? 0 : static_cast<UINT32>(std::strlen(Changes)), 0, 0};
    }
};

} // namespace

std::optional<ParsedWait> parseWait(const std::string& name)
{
    ParsedWait parsed{};
    const char* pText = name.data();
    const char* const pEnd = pText + name.size();
    int64_t milliseconds = 0;
    Wait& wait = parsed.wait;
    if (!takeNumber(pText, pEnd, parsed.handle, 16))
        return std::nullopt;
    wait.now = pEnd - pText > 4 && std::memcmp(pText, "now ", 4) == 0;
    if (wait.now)
        pText += 4;
    else if (!takeNumber(pText, pEnd, wait.watched.since, 10))
        return std::nullopt;
    if (!takeNumber(pText, pEnd, milliseconds, 10) || milliseconds < 0 || wait.watched.since < 0)
        return std::nullopt;
    const std::string scope(pText, pEnd);
    if (scope != "key" && scope != "tree")
        return std::nullopt;
    wait.watched.subTree = scope == "tree";
    wait.atMost = std::min(std::chrono::milliseconds(milliseconds), LongestWait);
    return parsed;
}

std::string answerText(const Told& told)
{
    return std::to_string(told.upTo) + (told.lost ? " lost" : "") + '\0' + told.text + '\0';
}

Tree& dynamicTree()
{
    static DynamicTree tree;
    return tree;
}

} // namespace obregd
