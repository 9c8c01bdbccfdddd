// The registry on disk: one SQLite file, in write-ahead-log mode.
//
// Two tables above all. regkey holds the keys, each with its parent, the owner of its tree, its last write time, its
// numbers of sub-keys and values and their greatest lengths; its row number is the key's handle. regvalue holds the
// values. Indexes find a child or a value by name, and the entries of a key in order of creation. Values are not
// clustered by name: that reads a small value half a microsecond faster, but takes three times the space and four times
// as long from a kilobyte on. schema.h tells of the other tables.
//
// A Store reads. The one WritableStore of a process also writes, inside begin() and commit(); other Stores see what has
// been committed. Each belongs to one thread. Reading never waits for writing. What Stores on one file share (shared.h)
// has its own locks.
//
// Whatever fails throws SQLite::Exception, a damaged store too: then with a message that names the key.
#ifndef OBREG_DAEMON_STORE_STORE_H
#define OBREG_DAEMON_STORE_STORE_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <chrono>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/govern/quota.h"
#include "daemon/store/changes.h"
#include "daemon/store/history.h"
#include "daemon/store/journal.h"
#include "daemon/store/lengths.h"
#include "daemon/store/secrets.h"
#include "daemon/store/shared.h"
#include "daemon/store/tokens.h"
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
    bool hasValue(KeyId key, const std::string& name) override;
    std::optional<SubKeyEntry> subKeyAt(const Key& key, UINT32 index) override;
    std::optional<ValueEntry> valueAt(const Key& key, UINT32 index) override;
    Longest longest(const Key& key) override;

    /// What has changed at a key. See changes.h.
    Told told(const Watched& watched);
    enum class Changed { No, Yes, Unknown };
    /// Whether a key, or anything below it, has changed after the change of that number. `most`: how many later changes
    /// are looked at, of whatever key; it is lessened by them. Unknown: there were more, or the journal no longer has
    /// them.
    Changed changedSince(KeyId key, int64_t since, int64_t& most);
    int64_t lastChange() { return m_changes.last(); }
    /// What has happened to a key. See history.h. A brief Store throws TooLong.
    std::string history(const HistoryQuestion& question);
    /// The key above a key, one that is deleted included; nothing when it is not known, 0 above a root.
    std::optional<KeyId> parentOf(KeyId id) { return m_changes.parentOf(id); }
    /// Where a key is; nothing when it is not known.
    std::optional<Place> placeOf(KeyId id) { return m_changes.placeOf(id); }

    /// What is kept of a transaction of a user's that was done.
    std::optional<Token> token(uid_t uid, const std::string& name) { return m_tokens.find(uid, name); }

    /// What all owners' trees take, as it is in the file.
    std::map<Owner, Usage> usages();

    /// A brief Store throws TooLong instead of working for long: for value data over 64 KiB, a walk of more than 2,000
    /// entries, and greatest lengths that would have to be looked for among more entries than that. Initially not.
    void setBrief(bool brief) { m_brief = brief; }

    /// Lets what it is doing fail soon. Any thread.
    void interrupt();

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
    /// has to be called when something new is to be seen; a state that is older than a tenth of a second is given up in
    /// any case, for what others than this process may have written. Initially false.
    void keepState(bool keep);
    /// Lets the next Snapshot see what has been committed by now.
    void refresh();

protected:
    static constexpr int BusyTimeoutMs = 5000; // for the writer, against an operator's own look into the file

    Store(const std::string& path, int flags);

    /// What a key's row says beside what a Key tells.
    struct Row {
        Owner owner;
        uint64_t written;
        int64_t subKeys, values;
        Lengths lengths;
    };
    Row row(KeyId id);

    /// Ends the reading whose row the last result points into.
    void release();
    /// Forgets what was worked out: somebody else has written, or what it was worked out from is undone.
    virtual void distrust();
    /// What the next state surely holds; before that begins.
    void lookAround();
    /// Whether others than this connection have written since the last call.
    bool othersWrote();

    SQLite::Database m_database;
    const std::shared_ptr<Shared> m_pShared;

private:
    using Clock = std::chrono::steady_clock;

    void beginState();
    SQLite::Statement* entryAt(Entries entries, const Key& key, UINT32 count, UINT32 index);
    SQLite::Statement& walk(Entries entries, const Key& key, const Walk& way, int64_t maxData);
    int64_t maxData() const;

    SQLite::Statement m_begin, m_end, m_version, m_key, m_row, m_child, m_lastId, m_value, m_hasValue, m_longestSubKey,
        m_longestValue;
    ChangeReader m_changes;
    HistoryReader m_history;
    TokenReader m_tokens;
    SQLite::Statement m_entriesUp[2], m_entriesDown[2];
    SQLite::Statement* m_pHeld = nullptr;
    bool m_brief = false;
    bool m_keepState = false;
    bool m_inState = false; // a read transaction is open
    Clock::time_point m_stateBegan;
    Positions::View m_view;
    uint64_t m_leftoversSeen = 0;
    int64_t m_versionSeen = -1;
    uint64_t m_commitsSeen = 0;
    struct Dated {
        uint64_t written; // the key's: while it is that, the lengths hold
        Longest longest;
    };
    std::unordered_map<KeyId, Dated> m_longest;
};

class WritableStore final : public Store {
public:
    /// Opens the file, makes it (0600) when there is none. Throws std::runtime_error with a message for the operator
    /// when it is something else's file or damaged.
    explicit WritableStore(const std::string& path);

    /// Waits a while for a program from outside that holds the store locked, but not again and again: when it has
    /// waited for nothing, only a moment until it has not. isBusy() knows the failure.
    void begin();
    /// Returns when everything since begin() is on disk.
    void commit();
    /// Undoes everything since begin(). Does not throw.
    void rollback();

    /// Undoes what is done in its lifetime, if it is not kept, and nothing that was done before. Inside begin() and
    /// commit(), one at a time.
    class Savepoint {
    public:
        explicit Savepoint(WritableStore& store);
        ~Savepoint();
        Savepoint(const Savepoint&) = delete;
        Savepoint& operator=(const Savepoint&) = delete;
        void keep();

    private:
        WritableStore& m_store;
        const JournalWriter::Ends m_journal;
        const Secrets::Point m_secrets;
        const uint64_t m_removals;
        std::vector<std::pair<Owner, Usage>> m_accounts; // of those who were changed before
        bool m_kept = false;
    };

    Depth depthOf(KeyId id) { return m_depths.of(id); }

    /// The name must be new to the parent.
    KeyId addKey(KeyId parent, const std::string& name, Owner owner);
    /// Removes the key and its values; it must have no sub-keys. Many values stay behind, where nobody sees them, for
    /// clearSome().
    void removeKey(const Key& key);
    void setValue(KeyId key, const std::string& name, UINT32 type, const char* pData, UINT32 length);
    /// False when there is no such value.
    bool removeValue(KeyId key, const std::string& name);

    /// Keeps a transaction's token: it was done. The user has none of that name.
    void addToken(uid_t uid, const std::string& name, int64_t hash)
    {
        m_tokenWriter.add(uid, name, {hash, m_journal.last()});
    }

    /// For rooms that keep tables of their own in it.
    SQLite::Database& database() { return m_database; }
    /// Changes from now on are dated so, if that is later than what is there; 0: with the time of the clock.
    void setTime(uint64_t time) { m_time = time; }
    /// The changes with greater numbers than that, committed or not.
    std::vector<Change> changesAfter(int64_t number);

    /// Where each change is noted.
    JournalWriter& journal() { return m_journal; }
    /// Keys of which the journal keeps no data, beside those that are marked.
    void setSecret(std::vector<SecretPattern> patterns) { m_secrets.setPatterns(std::move(patterns)); }

    /// Whether there are values of deleted keys, changes that the journal has no room for, or data of secret values in
    /// it, to be cleared away.
    bool hasToClear() const { return m_hasToClear || m_journal.isTooLong() || m_secrets.hasToClear(); }
    /// Clears away up to that many of them, and not too many bytes. True when more is left.
    bool clearSome(int maxRows);

    /// Whether what is secret is overwritten where it is deleted; on unless there is no room for that.
    void overwriteSecrets(bool overwrites) { m_secrets.overwrite(overwrites); }

    /// What has been done since this was made, for whomever, undone or not.
    struct Work {
        uint64_t keysMade = 0;
        uint64_t bytesGivenBack = 0; ///< of names and values; what is left to clearSome() counts when that is cleared
    };
    const Work& work() const { return m_work; }

    void setQuota(const Quota& quota) { m_quota = quota; }
    /// What an owner's trees take, by all that has been done so far.
    Usage usage(Owner owner) { return accountOf(owner).now; }
    /// Whether that many keys more, with names of so many bytes together, fit the quota of an owner's tree, and there
    /// are numbers for them.
    bool allowsKeys(Owner owner, uint64_t count, uint64_t nameBytes);
    /// Whether a value fits the quota of its key's tree. One that is not longer than what it replaces does.
    bool allowsValue(const Key& key, const std::string& name, UINT32 length);
    /// Whether what an owner's tree takes fits its quota, or has not grown since it took that much.
    bool fitsQuota(Owner owner, const Usage& before);

    /// The pages that the file has and does not use.
    uint64_t freePages();
    /// The pages in the log as of the last commit.
    int logPages() const { return m_logPages; }
    /// Whether the log has so many pages that they should be moved into the file; 4000 unless set.
    bool logIsLong() const { return m_logPages >= m_maxLogPages; }
    void setMaxLogPages(int pages) { m_maxLogPages = pages; }
    /// Moves what is in the log into the file, as far as no reader needs it there, without waiting for anybody. Returns
    /// how many pages remain; when none does, the next commit begins the log anew. Outside begin() and commit().
    int finishTidying();
    /// The same, and lets the log begin anew at once. False when a reader, or whoever else, is in the way.
    bool restartLog();

private:
    struct Account {
        Usage now, stored;
    };
    using FoundValue = JournalWriter::ValueRow;

    int64_t lastNumber();
    Row changing(KeyId id);
    void setPatience();
    void writeRow(KeyId id, Row& row);
    std::optional<FoundValue> findValue(KeyId key, const std::string& name);
    Account& accountOf(Owner owner);
    Usage& change(Owner owner);
    void giveBack(Owner owner, int64_t bytes);
    void storeUsage();
    std::string removeRow(const Key& key);
    bool isLarge(const Key& key);
    void leaveValues(const Key& key);
    void removeValues(const Key& key, uint64_t time);
    bool clearLeftovers(int maxRows);
    void distrust() override;

    SQLite::Statement m_beginWrite, m_commit, m_rollback, m_addKey, m_setRow, m_removeKey, m_removeValues, m_findValue,
        m_replaceValue, m_addValue, m_removeValue, m_lastValueRow, m_usage, m_setUsage, m_addLeftover, m_firstLeftover,
        m_leftValues, m_clearValues, m_removeLeftover, m_lastNumber, m_freePages, m_valuesOf;
    SQLite::Statement m_savepoint, m_rollbackTo, m_releaseSavepoint;
    JournalWriter m_journal;
    JournalReader m_journalReader;
    Secrets m_secrets;
    TokenWriter m_tokenWriter;
    Depths m_depths;
    Quota m_quota;
    std::unordered_map<Owner, Account> m_accounts; // of those who were met
    std::vector<Owner> m_changedAccounts;          // since begin()
    Work m_work;
    int64_t m_lastValueRowUsed = 0; // a value's row is not used again while this lives
    uint64_t m_time = 0;
    bool m_hasToClear = false;
    bool m_cleared = false;   // the last of it since begin()
    bool m_lockedOut = false; // by a program from outside, when last tried
    int m_logPages = 0;
    int m_maxLogPages = 4000;
};

/// The status that tells a client about a failure of the store.
REGSTATUS statusOf(const SQLite::Exception& failure);
/// Whether begin() failed because a program from outside held the store locked: nothing that was to be done is at
/// fault.
bool isBusy(const SQLite::Exception& failure);
/// Throws what says that the store is damaged.
[[noreturn]] void throwDamaged(KeyId key, const char* pWhat);

} // namespace obregd

#endif
