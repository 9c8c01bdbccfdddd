// Which keys are secret (govern/secrecy.h), and the clearing of what the journal has of them from before they were.
//
// While there are such keys, what the store's file gives up is overwritten with zeros, however long it was. Marks are
// found by an index of their own. After a mark, and at the start while anything is secret, the journal is looked
// through in pieces.
//
// Belongs to the WritableStore and its thread. Whatever fails throws SQLite::Exception.
#ifndef OBREG_DAEMON_STORE_SECRETS_H
#define OBREG_DAEMON_STORE_SECRETS_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <chrono>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "daemon/govern/secrecy.h"
#include "daemon/store/places.h"

namespace obregd {

class Secrets {
public:
    explicit Secrets(SQLite::Database& database);

    void setPatterns(std::vector<SecretPattern> patterns);

    /// Whether the values of a key are secret. The key may be deleted, if the journal knows of it.
    bool has(KeyId key)
    {
        if (m_isStale)
            forget();
        if (!m_fading.empty() && m_changes.empty() && Clock::now() >= m_nextFade)
            fade();
        return hasAny() && isSecret(key);
    }

    /// A key has been given the value that marks it, or has it no more. The last change then: what the journal has up
    /// to there is cleared.
    void marked(KeyId key, int64_t lastChange);
    void unmarked(
        KeyId key); ///< if it had it; which counts a minute later, for whoever deletes all values in whatever order

    /// Whether the data of what is deleted is overwritten while there are secret keys, which is so unless there is no
    /// room for that: it is written to the log once more.
    void overwrite(bool overwrites);

    void committed();
    /// How far it is, to go back there.
    struct Point {
        size_t changes = 0;  // of marks, since the last commit
        int64_t cleared = 0; // changes in the journal up to there have been looked at
        int64_t upTo = 0;    // and those up to there have to be
    };
    Point point() const { return {m_changes.size(), m_now.cleared, m_now.upTo}; }
    /// What has been done since then is undone. Does not throw.
    void rolledBack(const Point& to);
    void rolledBack() { rolledBack(m_stored); }
    /// What is known of the file is not to be relied on any more.
    void distrust();

    bool hasToClear() const { return m_now.cleared < m_now.upTo; }
    /// Looks at up to so many changes. Inside a transaction.
    void clearSome(int rows);

private:
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::time_point Never = Clock::time_point::max();
    /// A key's mark, as it was before it was set or taken away.
    struct Before {
        KeyId key;
        bool isMarked;
        Clock::time_point fades;
    };
    struct Answer {
        bool isSecret;
        size_t levels; // from the root
    };

    bool hasAny() const { return !m_marks.empty() || !m_patterns.empty(); }
    bool isSecret(KeyId key);
    void noteBefore(KeyId key);
    void fade();
    void forget();
    void applyOverwriting();

    SQLite::Database& m_database;
    Places m_places;
    SQLite::Statement m_allMarks, m_uncleared, m_clear, m_first, m_last;
    std::vector<SecretPattern> m_patterns;
    size_t m_longestPattern = 0;                           // in names
    std::unordered_set<KeyId> m_marks;                     // keys that have the mark; a deleted one does no harm
    std::unordered_map<KeyId, Clock::time_point> m_fading; // those that have it no more, and until when that counts not
    std::unordered_map<KeyId, Answer> m_answers;           // of isSecret()
    std::vector<Before> m_changes;                         // of marks, since the last commit
    Clock::time_point m_nextFade;
    Point m_stored, m_now;
    bool m_isStale = false; // the answers, and whether there is anything secret
    bool m_overwrites = true;
};

} // namespace obregd

#endif
