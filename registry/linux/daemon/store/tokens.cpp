#include "daemon/store/tokens.h"

#include <algorithm>

#include "daemon/store/clock.h"
#include "daemon/store/statements.h"

namespace obregd {

namespace {

constexpr int64_t LongestAge = int64_t{24} * 3600 * 10'000'000; // in the units of timeNow()
constexpr int AgedAtOnce = 4;                                   // that go when one comes

int64_t now() { return static_cast<int64_t>(timeNow()); }

} // namespace

TokenReader::TokenReader(SQLite::Database& database)
    : m_find(database, "SELECT hash, number FROM token WHERE uid = ? AND name = ? AND time > ?")
{}

std::optional<Token> TokenReader::find(uid_t uid, const std::string& name)
{
    const Use use(m_find);
    bindAll(m_find, uid, name, now() - LongestAge);
    if (!m_find.executeStep())
        return std::nullopt;
    return Token{m_find.getColumn(0).getInt64(), m_find.getColumn(1).getInt64()};
}

TokenWriter::TokenWriter(SQLite::Database& database)
    : m_remove(database, "DELETE FROM token WHERE uid = ? AND name = ?"),
      m_add(database, "INSERT INTO token (uid, name, hash, number, time) VALUES (?, ?, ?, ?, ?)"),
      m_oldest(database, "SELECT id, uid, time FROM token ORDER BY id LIMIT 1"),
      m_oldestOf(database, "SELECT id FROM token INDEXED BY token_order WHERE uid = ? ORDER BY id LIMIT 1"),
      m_drop(database, "DELETE FROM token WHERE id = ?"),
      m_counts(database, "SELECT uid, count(*) FROM token INDEXED BY token_order GROUP BY uid")
{}

void TokenWriter::add(uid_t uid, const std::string& name, const Token& token)
{
    const int64_t time = now();
    count(uid, -run(m_remove, uid, name)); // too old to be found
    run(m_add, uid, name, token.hash, token.number, time);
    count(uid, 1);
    dropAged(time);
    if (m_count[uid] > MostOfOneUser)
        dropOldest(uid);
    if (m_all > MostOfAll)
        dropOldest(std::max_element(m_count.begin(), m_count.end(), [](const auto& a, const auto& b) {
                       return a.second < b.second;
                   })->first);
}

void TokenWriter::dropAged(int64_t now)
{
    for (int i = 0; i < AgedAtOnce; ++i) {
        int64_t id = 0;
        uid_t uid = 0;
        {
            const Use use(m_oldest);
            if (!m_oldest.executeStep() || m_oldest.getColumn(2).getInt64() > now - LongestAge)
                return;
            id = m_oldest.getColumn(0).getInt64();
            uid = static_cast<uid_t>(m_oldest.getColumn(1).getInt64());
        }
        drop(id, uid);
    }
}

void TokenWriter::dropOldest(uid_t uid)
{
    int64_t id = 0;
    {
        const Use use(m_oldestOf);
        bindAll(m_oldestOf, uid);
        if (!m_oldestOf.executeStep())
            return;
        id = m_oldestOf.getColumn(0).getInt64();
    }
    drop(id, uid);
}

void TokenWriter::drop(int64_t id, uid_t uid) { count(uid, -run(m_drop, id)); }

void TokenWriter::count(uid_t uid, int64_t more)
{
    if (more == 0)
        return;
    int64_t& counted = m_count[uid];
    m_changes.emplace_back(uid, more);
    counted += more;
    m_all += more;
}

void TokenWriter::committed()
{
    for (const auto& [uid, more] : m_changes)
        if (const auto counted = m_count.find(uid); counted != m_count.end() && counted->second == 0)
            m_count.erase(counted);
    m_changes.clear();
}

void TokenWriter::rolledBack()
{
    for (const auto& [uid, more] : m_changes) {
        m_count.at(uid) -= more;
        m_all -= more;
    }
    m_changes.clear();
}

void TokenWriter::distrust()
{
    m_count.clear();
    m_changes.clear();
    m_all = 0;
    const Use use(m_counts);
    while (m_counts.executeStep())
        count(static_cast<uid_t>(m_counts.getColumn(0).getInt64()), m_counts.getColumn(1).getInt64());
    m_changes.clear();
}

} // namespace obregd
