// The registry on disk: one SQLite file, in write-ahead-log mode.
//
// Two tables. regkey holds the keys, each with its parent, the owner of its tree, its last write time and its numbers
// of sub-keys and values; its row number is the key's handle. regvalue holds the values. Indexes find a child or a
// value by name, and the entries of a key in order of creation. Values are not clustered by name: that reads a small
// value half a microsecond faster, but takes three times the space and four times as long from a kilobyte on.
//
// A Store reads. The one WritableStore of a process also writes, inside begin() and commit(); other Stores see what has
// been committed. Each belongs to one thread. Reading never waits for writing.
//
// Whatever fails throws SQLite::Exception.
#ifndef OBREG_DAEMON_STORE_STORE_H
#define OBREG_DAEMON_STORE_STORE_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <string>

#include "daemon/store/enumeration.h"
#include "daemon/tree.h"

namespace obregd {

class Store : public Tree {
public:
    /// Opens for reading what a WritableStore of this process has open.
    explicit Store(const std::string& path) : Store(path, SQLite::OPEN_READONLY) {}

    const std::string& path() const { return m_database.getFilename(); }

    std::optional<Key> key(KeyId id) override;
    std::optional<KeyId> child(KeyId parent, const std::string& name) override;
    bool wasIssued(KeyId id) override;
    std::optional<Value> value(KeyId key, const std::string& name) override;
    std::optional<SubKeyEntry> subKeyAt(const Key& key, UINT32 index) override;
    std::optional<ValueEntry> valueAt(const Key& key, UINT32 index) override;
    Longest longest(const Key& key) override;

    /// Keeps the reads of its lifetime on one state of the store. Inside a write transaction that is so anyway.
    class Snapshot {
    public:
        explicit Snapshot(Store& store);
        ~Snapshot();
        Snapshot(const Snapshot&) = delete;
        Snapshot& operator=(const Snapshot&) = delete;

    private:
        Store& m_store;
    };

    /// Whether one Snapshot reads on where the last one stopped, which spares the locks of a new state. Then refresh()
    /// has to be called when something new is to be seen. Initially false.
    void keepState(bool keep);
    /// Lets the next Snapshot see what has been committed by now.
    void refresh();

protected:
    Store(const std::string& path, int flags);

    /// Ends the reading whose row the last result points into.
    void release();
    void forgetFacts();

    SQLite::Database m_database;

private:
    enum Entries { SubKeys, Values };

    SQLite::Statement* entryAt(Entries entries, const Key& key, UINT32 count, UINT32 index);

    SQLite::Statement m_begin, m_end, m_key, m_child, m_lastId, m_value, m_longestSubKey, m_longestValue;
    SQLite::Statement m_entriesUp[2], m_entriesDown[2];
    SQLite::Statement* m_pHeld = nullptr;
    bool m_keepState = false;
    bool m_inState = false; // a read transaction is open
    KeyFacts<Cursor> m_cursors[2];
    KeyFacts<Longest> m_longest;
};

class WritableStore final : public Store {
public:
    /// Opens the file, makes it (0600) when there is none. Throws std::runtime_error with a message for the operator
    /// when it is something else's file or damaged.
    explicit WritableStore(const std::string& path);

    void begin();
    /// Returns when everything since begin() is on disk.
    void commit();
    /// Undoes everything since begin(). Does not throw.
    void rollback();
    bool logIsLong() const;
    /// Moves the log into the file and lets it begin anew. Waits for Stores that are in an older state. Outside begin()
    /// and commit().
    void tidy();

    /// The name must be new to the parent.
    KeyId addKey(KeyId parent, const std::string& name, Owner owner);
    /// Removes the key and its values; it must have no sub-keys.
    void removeKey(const Key& key);
    void setValue(KeyId key, const std::string& name, UINT32 type, const char* pData, UINT32 length);
    /// False when there is no such value.
    bool removeValue(KeyId key, const std::string& name);

private:
    void touch(KeyId id, int subKeysMore, int valuesMore);

    SQLite::Statement m_beginWrite, m_commit, m_rollback, m_addKey, m_touch, m_removeKey, m_removeValues,
        m_replaceValue, m_addValue, m_removeValue;
    int m_logPages = 0;
};

/// The status that tells a client about a failure of the store.
REGSTATUS statusOf(const SQLite::Exception& failure);

} // namespace obregd

#endif
