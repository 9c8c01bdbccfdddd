// The journal: what was changed in the store, when and by whom, and what was there before.
//
// One row for each change, written in the transaction of the change, so that the two are there together or not at all.
// Numbers grow by one and are never used again. The journal is bounded: its oldest rows are dropped when it has grown
// beyond its size, but never the last one, which knows the last number. `position` counts the bytes of all changes up
// to a row since the store was made; so the journal's size is known without reading it.
//
// A Journal belongs to the connection that it is made with, and to its thread. Whatever fails throws SQLite::Exception.
#ifndef OBREG_DAEMON_STORE_JOURNAL_H
#define OBREG_DAEMON_STORE_JOURNAL_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "daemon/store/statements.h"
#include "daemon/tree.h"

namespace obregd {

enum class ChangeKind : int { KeyMade = 1, KeyDeleted, ValueSet, ValueDeleted };
/// As clients read them, by kind.
inline constexpr const char* ChangeNames[] = {"", "key-made", "key-deleted", "value-set", "value-deleted"};

inline bool isOfKey(ChangeKind kind) { return kind == ChangeKind::KeyMade || kind == ChangeKind::KeyDeleted; }

/// Who makes a change.
struct Author {
    uid_t uid;
    pid_t pid;
};

/// What was there before. Its data is not there when it was not kept.
struct Former {
    UINT32 type;
    uint64_t length;
    std::optional<std::string> data;
};

struct Change {
    int64_t number;
    uint64_t time; ///< 100 ns units since 1601-01-01 UTC; of changes made at once the same
    Author author;
    ChangeKind kind;
    KeyId key;
    KeyId parent;                 ///< of a key that was made or deleted, else 0
    std::string name;             ///< of that key or of the value
    std::optional<Former> former; ///< none when there was no such value; of a deleted key the number of values lost
    bool isSecret;                ///< the value's key is: no data of it is kept
};

/// Which keys a change concerns: a key and, when it was made or deleted, its parent.
struct Touched {
    int64_t number;
    KeyId key;
    KeyId parent;
};

/// Where a new row goes.
class JournalWriter {
public:
    explicit JournalWriter(SQLite::Database& database);

    /// The most that the journal may take, in bytes; 0: as much as watchers need, without what was there before.
    void setSize(uint64_t size);
    /// Data is kept from now on, or not, as long as it is not too long.
    void keepData(bool keep) { m_keepData = keep; }
    /// The changes that follow are his, and belong together: a reader of the journal is told of all of them or none.
    void setAuthor(Author author)
    {
        m_author = author;
        m_joins = false;
    }

    void keyMade(KeyId key, KeyId parent, const std::string& name, uint64_t time);
    /// valuesLost: of its values, so many were not noted before.
    void keyDeleted(KeyId key, KeyId parent, const std::string& name, uint64_t valuesLost, uint64_t time);
    void valueMade(KeyId key, const std::string& name, bool isSecret, uint64_t time);
    /// A value's row in the table of values, and lengths in bytes.
    struct ValueRow {
        int64_t id, nameLength, dataLength;
    };
    /// The value in that row is about to be replaced or deleted. What is secret is kept without its data.
    void valueChanges(ChangeKind kind, KeyId key, const ValueRow& row, bool isSecret, uint64_t time);

    /// The number of the last change, committed or not.
    int64_t last() const { return m_now.number; }
    void committed() { m_stored = m_now; }
    /// How far it is, to go back there.
    struct Ends {
        int64_t number = 0;
        int64_t position = 0;
        int64_t first = 0; // position of the oldest
    };
    const Ends& ends() const { return m_now; }
    /// What has been noted since then is undone in the file.
    void rolledBack(const Ends& to);
    void rolledBack() { rolledBack(m_stored); }
    /// What has been committed since the last call.
    std::vector<Touched> takeTouched() { return std::exchange(m_touched, {}); }
    /// What is known of the file is not to be relied on any more.
    void distrust();

    bool isTooLong() const { return m_now.position - m_now.first > m_size + m_size / 16; }
    /// Drops up to so many of the oldest changes, and bytes, as far as it is too long. Inside a transaction.
    void dropSome(int rows, int64_t bytes);

private:
    void next(int64_t bytes, KeyId key, KeyId parent);

    SQLite::Statement m_add, m_former, m_addFormer, m_ends, m_oldest, m_drop;
    int64_t m_size = 0;
    int64_t m_maxData = 0;
    bool m_keepData = true;
    Author m_author{};
    bool m_joins = false; // the next change belongs to the one before it
    std::vector<Touched> m_touched;
    Ends m_stored{}, m_now{};
};

/// Reads the journal.
class JournalReader {
public:
    explicit JournalReader(SQLite::Database& database);

    /// The number of the last change; 0 when there was none.
    int64_t last();
    /// The number of the first change that is still there; last() + 1 when there is none.
    int64_t first();

    /// A part of the journal, read from one of its ends.
    struct Stretch {
        int64_t after, before; ///< the numbers between these two
        bool newestFirst = false;
        std::optional<KeyId> key{}; ///< only changes of that key, its values and the list of its sub-keys
    };
    /// Calls see(change) for those of its changes for which wants(kind, key, parent), until it returns false.
    template <class Wants, class See>
    void read(const Stretch& stretch, Wants wants, See see)
    {
        SQLite::Statement& rows = stretch.newestFirst ? m_down : m_up;
        const Use use(rows);
        bindAll(rows, stretch.after, stretch.before, stretch.key.value_or(0));
        while (rows.executeStep()) {
            const auto at = [&](int column) { return rows.getColumn(column).getInt64(); };
            if (wants(static_cast<ChangeKind>(at(1)), KeyId{at(2)}, KeyId{at(3)}) && !see(change(rows)))
                break;
        }
    }

private:
    static Change change(const SQLite::Statement& row);

    SQLite::Statement m_last, m_first, m_up, m_down;
};

} // namespace obregd

#endif
