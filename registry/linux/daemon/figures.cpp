#include "daemon/figures.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <strings.h>

#include "daemon/store/clock.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

/// In the order of the enumeration.
constexpr const char* Names[] = {
    // Requests
    "CloseKey", "CreateKey", "DeleteKey", "DeleteValue", "EnumKey", "EnumValue", "OpenKey", "QueryValue", "SetValue",
    "QueryInfoKey", "Unknown",
    // Store
    "Commits", "Writes", "FailedTransactions",
    // Clients
    "Connected", "Accepted", "CutOff",
    // Bytes
    "Received", "Sent", "Held"};
static_assert(std::size(Names) == static_cast<size_t>(Figure::Number));

/// The keys below the root, in the order of their numbers. A group ends where the next begins.
constexpr struct Group {
    const char* pName;
    Figure first;
} Groups[] = {{"Requests", Figure::FirstRequest},
              {"Store", Figure::Commits},
              {"Clients", Figure::Connected},
              {"Bytes", Figure::BytesReceived},
              {nullptr, Figure::Number}};
constexpr size_t GroupCount = std::size(Groups) - 1;
constexpr KeyId FirstGroupId = PerformanceId + 1;
static_assert(FirstGroupId + static_cast<KeyId>(GroupCount) <= FirstKeyId);

bool isGroup(KeyId id) { return id >= FirstGroupId && id < FirstGroupId + static_cast<KeyId>(GroupCount); }

/// The numbers of a group's figures, first and behind the last; none for another key.
std::pair<size_t, size_t> figuresOf(KeyId id)
{
    if (!isGroup(id))
        return {0, 0};
    const Group* const pGroup = &Groups[id - FirstGroupId];
    return {static_cast<size_t>(pGroup[0].first), static_cast<size_t>(pGroup[1].first)};
}

Value valueOf(size_t figure)
{
    static thread_local char data[sizeof(uint64_t)];
    uint64_t number = figureValues[figure].load(std::memory_order_relaxed);
    for (char& byte : data) {
        byte = static_cast<char>(number & 0xFF);
        number >>= 8;
    }
    return {REG_QWORD, data, sizeof(data)};
}

UINT32 length(const char* pName) { return static_cast<UINT32>(std::char_traits<char>::length(pName)); }

class FigureTree : public Tree {
public:
    std::optional<Key> key(KeyId id) override
    {
        const bool root = id == PerformanceId;
        if (!root && !isGroup(id))
            return std::nullopt;
        const auto [first, end] = figuresOf(id);
        return Key{id,
                   root ? 0 : PerformanceId,
                   NobodysOwner,
                   timeNow(),
                   static_cast<UINT32>(root ? GroupCount : 0),
                   static_cast<UINT32>(end - first)};
    }

    std::optional<KeyId> child(KeyId parent, const std::string& name) override
    {
        for (size_t i = 0; i < GroupCount && parent == PerformanceId; ++i)
            if (strcasecmp(Groups[i].pName, name.c_str()) == 0)
                return FirstGroupId + static_cast<KeyId>(i);
        return std::nullopt;
    }

    bool wasIssued(KeyId /*id*/) override { return false; }

    std::optional<Value> value(KeyId key, const std::string& name) override
    {
        const auto [first, end] = figuresOf(key);
        for (size_t figure = first; figure < end; ++figure)
            if (strcasecmp(Names[figure], name.c_str()) == 0)
                return valueOf(figure);
        return std::nullopt;
    }

    std::optional<SubKeyEntry> subKeyAt(const Key& key, UINT32 index) override
    {
        if (index >= key.subKeys)
            return std::nullopt;
        return SubKeyEntry{Groups[index].pName, key.written};
    }

    std::optional<ValueEntry> valueAt(const Key& key, UINT32 index) override
    {
        if (index >= key.values)
            return std::nullopt;
        const size_t figure = figuresOf(key.id).first + index;
        return ValueEntry{Names[figure], valueOf(figure)};
    }

    Longest longest(const Key& key) override
    {
        Longest longest{0, 0, key.values != 0 ? UINT32{sizeof(uint64_t)} : 0};
        for (UINT32 i = 0; i < key.subKeys; ++i)
            longest.subKeyName = std::max(longest.subKeyName, length(Groups[i].pName));
        for (UINT32 i = 0; i < key.values; ++i)
            longest.valueName = std::max(longest.valueName, length(valueAt(key, i)->pName));
        return longest;
    }
};

} // namespace

Tree& figureTree()
{
    static FigureTree tree;
    return tree;
}

} // namespace obregd
