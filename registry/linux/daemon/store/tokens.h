// The tokens of transactions that were done: what makes a transaction that is sent again act once.
//
// One row for each, written in the transaction that it stands for: whose it is, its name, a hash of the text, and the
// journal's number after it. Bounded: so many of a user, so many of all users, and none older than a day. What is too
// much goes when a new one comes, the oldest of its user first, and of all users the oldest of who has most.
//
// Both belong to the connection that they are made with, and to its thread. Whatever fails throws SQLite::Exception.
#ifndef OBREG_DAEMON_STORE_TOKENS_H
#define OBREG_DAEMON_STORE_TOKENS_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace obregd {

/// What is kept of one.
struct Token {
    int64_t hash;   ///< of the transaction's text
    int64_t number; ///< the journal's, when it was done
};

class TokenReader {
public:
    explicit TokenReader(SQLite::Database& database);
    /// Nothing when there is none of that name, or none so young.
    std::optional<Token> find(uid_t uid, const std::string& name);

private:
    SQLite::Statement m_find;
};

class TokenWriter {
public:
    static constexpr int64_t MostOfOneUser = 65'536;
    static constexpr int64_t MostOfAll = 262'144;

    explicit TokenWriter(SQLite::Database& database);

    /// The user has none of that name that is found.
    void add(uid_t uid, const std::string& name, const Token& token);

    void committed();
    void rolledBack(); ///< needs no memory
    /// What is known of the file is not to be relied on any more.
    void distrust();

private:
    void drop(int64_t id, uid_t uid);
    void dropOldest(uid_t uid);
    void dropAged(int64_t now);
    void count(uid_t uid, int64_t more);

    SQLite::Statement m_remove, m_add, m_oldest, m_oldestOf, m_drop, m_counts;
    std::unordered_map<uid_t, int64_t> m_count;
    int64_t m_all = 0;
    std::vector<std::pair<uid_t, int64_t>> m_changes; // of the counts, since the last commit
};

} // namespace obregd

#endif
