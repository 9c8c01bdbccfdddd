#include "daemon/dynamic.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <strings.h>

#include "daemon/engine/shareview.h"
#include "daemon/store/clock.h"
#include "obreg/roots.h"

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

/// How many of the keys there are: without shares there is no Shared.
UINT32 keyCount() { return static_cast<UINT32>(std::size(DynamicKeys) - (shareViews().empty() ? 1 : 0)); }

constexpr const char* ShareValues[] = {"State", "Revision", "Lag", "Members"};

class DynamicTree : public Tree {
public:
    std::optional<Key> key(KeyId id) override
    {
        if (id == DynamicId)
            return Key{id, 0, NobodysOwner, timeNow(), keyCount(), 0};
        if (shareOf(id))
            return Key{id, SharedId, NobodysOwner, timeNow(), 0, static_cast<UINT32>(std::size(ShareValues))};
        const UINT32 shares = id == SharedId ? static_cast<UINT32>(shareViews().size()) : 0;
        for (UINT32 i = 0; i < keyCount(); ++i)
            if (DynamicKeys[i].id == id)
                return Key{id, DynamicId, NobodysOwner, timeNow(), shares, 0};
        return std::nullopt;
    }

    std::optional<KeyId> child(KeyId parent, const std::string& name) override
    {
        const auto isIt = [&](const char* pName) { return strcasecmp(name.c_str(), pName) == 0; };
        for (UINT32 i = 0; i < keyCount(); ++i)
            if (parent == DynamicId && isIt(DynamicKeys[i].pName))
                return DynamicKeys[i].id;
        for (size_t i = 0; i < shareViews().size(); ++i)
            if (parent == SharedId && isIt(shareViews()[i]->name.c_str()))
                return SharedId + 1 + static_cast<KeyId>(i);
        return std::nullopt;
    }

    bool wasIssued(KeyId /*id*/) override { return false; }

    std::optional<Value> value(KeyId key, const std::string& name) override
    {
        const std::optional<size_t> share = shareOf(key);
        if (!share)
            return std::nullopt;
        for (const char* const pName : ShareValues)
            if (strcasecmp(name.c_str(), pName) == 0)
                return shareValue(*shareViews()[*share], pName);
        return std::nullopt;
    }

    std::optional<SubKeyEntry> subKeyAt(const Key& key, UINT32 index) override
    {
        if (index >= key.subKeys)
            return std::nullopt;
        return SubKeyEntry{nameAt(key.id, index), key.written};
    }

    std::optional<ValueEntry> valueAt(const Key& key, UINT32 index) override
    {
        const std::optional<size_t> share = shareOf(key.id);
        if (!share || index >= std::size(ShareValues))
            return std::nullopt;
        return ValueEntry{ShareValues[index], shareValue(*shareViews()[*share], ShareValues[index])};
    }

    Longest longest(const Key& key) override
    {
        size_t name = 0;
        for (UINT32 i = 0; i < key.subKeys; ++i)
            name = std::max(name, std::strlen(nameAt(key.id, i)));
        Longest longest{static_cast<UINT32>(name), 0, 0};
        for (UINT32 i = 0; i < key.values; ++i)
            if (const auto value = valueAt(key, i)) {
                longest.valueName = std::max(longest.valueName, static_cast<UINT32>(std::strlen(value->pName)));
                longest.valueData = std::max(longest.valueData, value->value.length);
            }
        return longest;
    }

private:
    static const char* nameAt(KeyId key, UINT32 index)
    {
        return key == SharedId ? shareViews()[index]->name.c_str() : DynamicKeys[index].pName;
    }

    static Value shareValue(const ShareView& share, std::string_view name)
    {
        static thread_local std::string data;
        const auto number = [](uint64_t value) {
            data.clear();
            for (int i = 0; i < 8; ++i)
                data += static_cast<char>(value >> (8 * i));
            return Value{REG_QWORD, data.data(), 8};
        };
        if (name == "Revision")
            return number(static_cast<uint64_t>(share.revision.load()));
        const ShareView::State state = share.state();
        if (name == "Lag")
            return number(state.lag);
        data = (name == "State" ? state.text : state.members) + '\0';
        std::replace(data.begin(), data.end(), '\n', '\0');
        const bool isList = name == "Members";
        if (isList)
            data += '\0';
        return {isList ? REG_MULTI_SZ : REG_SZ, data.data(), static_cast<UINT32>(data.size())};
    }
};

} // namespace

KeyId dynamicKey(HANDLE handle)
{
    const auto number = reinterpret_cast<uintptr_t>(handle);
    for (const DynamicKey& key : DynamicKeys)
        if (key.handle == number)
            return key.id;
    const bool isShare = number >= FirstShareHandle && number - FirstShareHandle < shareViews().size();
    return isShare ? SharedId + 1 + static_cast<KeyId>(number - FirstShareHandle) : 0;
}

uint32_t dynamicHandle(KeyId id)
{
    for (const DynamicKey& key : DynamicKeys)
        if (key.id == id)
            return key.handle;
    const std::optional<size_t> share = shareOf(id);
    return share ? FirstShareHandle + static_cast<uint32_t>(*share) : 0;
}

std::optional<size_t> shareOf(KeyId key)
{
    const auto number = static_cast<size_t>(key - SharedId - 1);
    return key > SharedId && number < shareViews().size() ? std::optional(number) : std::nullopt;
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
