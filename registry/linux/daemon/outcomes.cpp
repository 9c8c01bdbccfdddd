#include "daemon/outcomes.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <deque>
#include <list>
#include <mutex>
#include <unordered_map>

#include "regtext/characters.h"

namespace obregd {

namespace {

constexpr size_t MostOfOneUser = 64;
constexpr size_t MostUsers = 256;
constexpr size_t LongestText = 500; // a name in it may be long

struct Entry {
    std::string token;
    std::string text;
};

struct RefusedUser {
    uid_t uid;
    std::deque<Entry> entries; // the oldest first
};

/// Those who were refused something last are last.
class Memory {
public:
    void add(uid_t uid, Entry entry)
    {
        const std::lock_guard lock(m_mutex);
        std::deque<Entry>& entries = of(uid).entries;
        std::erase_if(entries, [&](const Entry& known) { return known.token == entry.token; });
        entries.push_back(std::move(entry));
        if (entries.size() > MostOfOneUser)
            entries.pop_front();
    }

    std::optional<std::string> find(uid_t uid, const std::string& token)
    {
        const std::lock_guard lock(m_mutex);
        if (const auto user = m_byUid.find(uid); user != m_byUid.end())
            for (const Entry& entry : user->second->entries)
                if (entry.token == token)
                    return entry.text;
        return std::nullopt;
    }

private:
    RefusedUser& of(uid_t uid)
    {
        if (const auto known = m_byUid.find(uid); known != m_byUid.end()) {
            m_users.splice(m_users.end(), m_users, known->second);
        } else {
            m_users.push_back({uid, {}});
            m_byUid[uid] = std::prev(m_users.end());
        }
        if (m_users.size() > MostUsers) {
            m_byUid.erase(m_users.front().uid);
            m_users.pop_front();
        }
        return m_users.back();
    }

    std::mutex m_mutex; // guards what follows
    std::list<RefusedUser> m_users;
    std::unordered_map<uid_t, std::list<RefusedUser>::iterator> m_byUid;
};

Memory& memory()
{
    static Memory users;
    return users;
}

} // namespace

void rememberRefusal(uid_t uid, const std::string& token, const Refused& refused)
{
    std::array<char, 64> head{};
    std::snprintf(head.data(), head.size(), "refused %" PRIu64 " %zu 0x%08X ", refused.place.line, refused.place.column,
                  refused.status);
    const std::string_view text = std::string_view(refused.text).substr(0, LongestText);
    memory().add(uid, {token, head.data() + regtext::escaped(text, regtext::Escape::Name)});
}

std::optional<std::string> refusalOf(uid_t uid, const std::string& token) { return memory().find(uid, token); }

} // namespace obregd
