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
            distrust();
        if (!m_fading.empty() && Clock::now() >= m_nextFade)
            fade();
        return hasAny() && isSecret(key);
    }

    /// A key has been given the value that marks it, or has it no more. The last change then: what the journal has up
    /// to there is cleared.
    void marked(KeyId key, int64_t lastChange);
    void unmarked(
        KeyId key); ///< if it had it; which counts a minute later, for whoever deletes all values in whatever order

    void committed();
    /// All has been undone.
    void rolledBack();
    /// A part of it has, and what was marked before stays so.
    void partRolledBack() { m_isStale = m_isStale || m_now.marks; }
    /// What is known of the file is not to be relied on any more.
    void distrust();

    bool hasToClear() const { return m_now.cleared < m_upTo; }
    /// Looks at up to so many changes. Inside a transaction.
    void clearSome(int rows);

private:
    using Clock = std::chrono::steady_clock;
    struct State {
        int64_t cleared = 0; // changes up to there have been looked at
        bool marks = false;  // have changed
    };

    bool hasAny() const { return !m_marks.empty() || !m_patterns.empty(); }
    bool isSecret(KeyId key);
    void fade();
    void forget();

    SQLite::Database& m_database;
    Places m_places;
    SQLite::Statement m_allMarks, m_uncleared, m_clear, m_last;
    std::vector<SecretPattern> m_patterns;
    std::unordered_set<KeyId> m_marks;                     // keys that have the mark; a deleted one does no harm
    std::unordered_map<KeyId, Clock::time_point> m_fading; // those that have it no more, and until when that counts not
    std::unordered_map<KeyId, bool> m_answers;             // of isSecret()
    Clock::time_point m_nextFade;
    State m_stored, m_now;
    bool m_isStale = false;
    int64_t m_upTo = 0; // changes that have to be looked at
};

} // namespace obregd

#endif
