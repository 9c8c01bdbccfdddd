#include "daemon/figures.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <strings.h>
#include <vector>

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

/// The keys behind these, in the order of their enumeration, with a value for each user.
constexpr const char* UserGroups[] = {"UserConnections", "UserHeld", "UserRequests",
                                      "UserRefused",     "UserKeys", "UserBytes"};
constexpr size_t UserGroupCount = std::size(UserGroups);
static_assert(UserGroupCount == static_cast<size_t>(UserFigure::Number));

constexpr size_t KeyCount = GroupCount + UserGroupCount;
constexpr KeyId FirstGroupId = PerformanceId + 1;
static_assert(FirstGroupId + static_cast<KeyId>(KeyCount) <= FirstKeyId);

bool isGroup(KeyId id) { return id >= FirstGroupId && id < FirstGroupId + static_cast<KeyId>(KeyCount); }
const char* groupName(size_t group)
{
    return group < GroupCount ? Groups[group].pName : UserGroups[group - GroupCount];
}

/// Those who have counts, in the order of their numbers.
class UserTable {
public:
    std::shared_ptr<UserCounts> of(uid_t uid)
    {
        const std::lock_guard lock(m_mutex);
        std::weak_ptr<UserCounts>& pKnown = m_users[uid];
        if (auto pCounts = pKnown.lock())
            return pCounts;
        auto pCounts = std::make_shared<UserCounts>();
        pKnown = pCounts;
        return pCounts;
    }

    /// Calls action(uid, counts) for each.
    template <class Action>
    void forEach(Action action)
    {
        const std::lock_guard lock(m_mutex);
        std::erase_if(m_users, [](const auto& user) { return user.second.expired(); });
        for (const auto& [uid, pKnown] : m_users)
            if (const auto pCounts = pKnown.lock())
                action(uid, *pCounts);
    }

private:
    std::mutex m_mutex;
    std::map<uid_t, std::weak_ptr<UserCounts>> m_users;
};

UserTable& userTable()
{
    static UserTable table;
    return table;
}

struct NamedFigure {
    std::string name;
    uint64_t number;
};

/// What is in a key of figures, as it is now.
std::vector<NamedFigure> figuresIn(KeyId id)
{
    std::vector<NamedFigure> figures;
    if (!isGroup(id))
        return figures;
    const auto group = static_cast<size_t>(id - FirstGroupId);
    if (group < GroupCount)
        for (auto figure = static_cast<size_t>(Groups[group].first);
             figure < static_cast<size_t>(Groups[group + 1].first); ++figure)
            figures.push_back({Names[figure], figureValues[figure].load(std::memory_order_relaxed)});
    else
        userTable().forEach([&](uid_t uid, const UserCounts& counts) {
            figures.push_back({std::to_string(uid), counts[group - GroupCount].load(std::memory_order_relaxed)});
        });
    return figures;
}

Value valueOf(uint64_t number)
{
    static thread_local char data[sizeof(uint64_t)];
    for (char& byte : data) {
        byte = static_cast<char>(number & 0xFF);
        number >>= 8;
    }
    return {REG_QWORD, data, sizeof(data)};
}

class FigureTree : public Tree {
public:
    std::optional<Key> key(KeyId id) override
    {
        const bool root = id == PerformanceId;
        if (!root && !isGroup(id))
            return std::nullopt;
        return Key{id,
                   root ? 0 : PerformanceId,
                   NobodysOwner,
                   timeNow(),
                   static_cast<UINT32>(root ? KeyCount : 0),
                   static_cast<UINT32>(figuresIn(id).size())};
    }

    std::optional<KeyId> child(KeyId parent, const std::string& name) override
    {
        for (size_t i = 0; i < KeyCount && parent == PerformanceId; ++i)
            if (strcasecmp(groupName(i), name.c_str()) == 0)
                return FirstGroupId + static_cast<KeyId>(i);
        return std::nullopt;
    }

    bool wasIssued(KeyId /*id*/) override { return false; }

    std::optional<Value> value(KeyId key, const std::string& name) override
    {
        for (const NamedFigure& figure : figuresIn(key))
            if (strcasecmp(figure.name.c_str(), name.c_str()) == 0)
                return valueOf(figure.number);
        return std::nullopt;
    }

    std::optional<SubKeyEntry> subKeyAt(const Key& key, UINT32 index) override
    {
        if (index >= key.subKeys)
            return std::nullopt;
        return SubKeyEntry{groupName(index), key.written};
    }

    std::optional<ValueEntry> valueAt(const Key& key, UINT32 index) override
    {
        static thread_local std::string name;
        const std::vector<NamedFigure> figures = figuresIn(key.id);
        if (index >= figures.size())
            return std::nullopt;
        name = figures[index].name;
        return ValueEntry{name.c_str(), valueOf(figures[index].number)};
    }

    Longest longest(const Key& key) override
    {
        Longest longest{0, 0, key.values != 0 ? UINT32{sizeof(uint64_t)} : 0};
        for (UINT32 i = 0; i < key.subKeys; ++i)
            longest.subKeyName = std::max(longest.subKeyName, static_cast<UINT32>(std::strlen(groupName(i))));
        for (const NamedFigure& figure : figuresIn(key.id))
            longest.valueName = std::max(longest.valueName, static_cast<UINT32>(figure.name.size()));
        return longest;
    }
};

} // namespace

std::shared_ptr<UserCounts> countsOf(uid_t uid) { return userTable().of(uid); }

Tree& figureTree()
{
    static FigureTree tree;
    return tree;
}

} // namespace obregd
