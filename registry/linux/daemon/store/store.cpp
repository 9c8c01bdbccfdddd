#include "daemon/store/store.h"

#include <sqlite3.h>

#include "daemon/store/clock.h"
#include "daemon/store/schema.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

// Of the store's pages in memory, for each connection; the system's own cache holds the others.
constexpr const char* ReaderCache = "PRAGMA cache_size = -16384"; // KiB
constexpr const char* WriterCache = "PRAGMA cache_size = -8192";
constexpr int BusyTimeoutMs = 5000; // for the writer, against an operator's own look into the file
constexpr int LogPagesToTidy = 4000;

/// Resets a statement on leaving a scope, so that it is ready again and holds no lock.
class Use {
public:
    explicit Use(SQLite::Statement& statement) : m_statement(statement) { m_statement.tryReset(); }
    ~Use() { m_statement.tryReset(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

private:
    SQLite::Statement& m_statement;
};

/// Sets the parameters from the first on. Text and data are not copied: they outlive the statement's use.
void bindOne(SQLite::Statement& statement, int index, const std::string& text) { statement.bindNoCopy(index, text); }
template <class Number>
void bindOne(SQLite::Statement& statement, int index, Number number)
{
    statement.bind(index, static_cast<int64_t>(number));
}
template <class... Values>
void bindAll(SQLite::Statement& statement, const Values&... values)
{
    int index = 0;
    (bindOne(statement, ++index, values), ...);
}

/// Sets the parameters, runs the statement to its end and returns the number of rows changed.
template <class... Values>
int run(SQLite::Statement& statement, const Values&... values)
{
    const Use use(statement);
    bindAll(statement, values...);
    return statement.exec();
}

UINT32 uint32At(const SQLite::Statement& statement, int column) { return statement.getColumn(column).getUInt(); }

Value valueAtColumn(const SQLite::Statement& statement, int typeColumn)
{
    const SQLite::Column data = statement.getColumn(typeColumn + 1);
    return {uint32At(statement, typeColumn), static_cast<const char*>(data.getBlob()),
            static_cast<UINT32>(data.getBytes())};
}

constexpr const char* SubKeysUp = "SELECT id, name, written FROM regkey INDEXED BY regkey_order "
                                  "WHERE parent = ?1 AND id >= ?2 ORDER BY id LIMIT 1 OFFSET ?3";
constexpr const char* SubKeysDown = "SELECT id, name, written FROM regkey INDEXED BY regkey_order "
                                    "WHERE parent = ?1 AND id < ?2 ORDER BY id DESC LIMIT 1 OFFSET ?3";
constexpr const char* ValuesUp = "SELECT id, name, type, data FROM regvalue INDEXED BY regvalue_order "
                                 "WHERE key = ?1 AND id >= ?2 ORDER BY id LIMIT 1 OFFSET ?3";
constexpr const char* ValuesDown = "SELECT id, name, type, data FROM regvalue INDEXED BY regvalue_order "
                                   "WHERE key = ?1 AND id < ?2 ORDER BY id DESC LIMIT 1 OFFSET ?3";

} // namespace

Store::Store(const std::string& path, int flags)
    : m_database(path, flags | SQLite::OPEN_NOMUTEX, BusyTimeoutMs), m_begin(m_database, "BEGIN"),
      m_end(m_database, "COMMIT"),
      m_key(m_database, "SELECT parent, owner, written, subkey_count, value_count FROM regkey WHERE id = ?"),
      m_child(m_database, "SELECT id FROM regkey WHERE parent = ? AND name = ?"),
      m_lastId(m_database, "SELECT seq FROM sqlite_sequence WHERE name = 'regkey'"),
      m_value(m_database, "SELECT type, data FROM regvalue WHERE key = ? AND name = ?"),
      m_longestSubKey(m_database, "SELECT ifnull(max(length(CAST(name AS BLOB))), 0) FROM regkey WHERE parent = ?"),
      m_longestValue(m_database, "SELECT ifnull(max(length(CAST(name AS BLOB))), 0), ifnull(max(length(data)), 0) "
                                 "FROM regvalue WHERE key = ?"),
      m_entriesUp{{m_database, SubKeysUp}, {m_database, ValuesUp}}, m_entriesDown{{m_database, SubKeysDown},
                                                                                  {m_database, ValuesDown}}
{
    m_database.exec(ReaderCache);
}

std::optional<Key> Store::key(KeyId id)
{
    const Use use(m_key);
    bindAll(m_key, id);
    if (!m_key.executeStep())
        return std::nullopt;
    return Key{id,
               m_key.getColumn(0).getInt64(),
               m_key.getColumn(1).getInt64(),
               static_cast<uint64_t>(m_key.getColumn(2).getInt64()),
               uint32At(m_key, 3),
               uint32At(m_key, 4)};
}

std::optional<KeyId> Store::child(KeyId parent, const std::string& name)
{
    const Use use(m_child);
    bindAll(m_child, parent, name);
    return m_child.executeStep() ? std::optional<KeyId>(m_child.getColumn(0).getInt64()) : std::nullopt;
}

bool Store::wasIssued(KeyId id)
{
    const Use use(m_lastId);
    return id >= FirstKeyId && m_lastId.executeStep() && id <= m_lastId.getColumn(0).getInt64();
}

std::optional<Value> Store::value(KeyId key, const std::string& name)
{
    release();
    bindAll(m_value, key, name);
    m_pHeld = &m_value;
    return m_value.executeStep() ? std::optional<Value>(valueAtColumn(m_value, 0)) : std::nullopt;
}

SQLite::Statement* Store::entryAt(Entries entries, const Key& key, UINT32 count, UINT32 index)
{
    release();
    if (index >= count)
        return nullptr;
    KeyFacts<Cursor>& cursors = m_cursors[entries];
    const Walk walk = shortestWalk(index, count, cursors.find(key.id, key.written));
    SQLite::Statement& statement = walk.up ? m_entriesUp[entries] : m_entriesDown[entries];
    bindAll(statement, key.id, walk.from, walk.skip);
    m_pHeld = &statement;
    if (!statement.executeStep())
        return nullptr;
    cursors.keep(key.id, key.written, {index, statement.getColumn(0).getInt64()});
    return &statement;
}

std::optional<SubKeyEntry> Store::subKeyAt(const Key& key, UINT32 index)
{
    const SQLite::Statement* pRow = entryAt(SubKeys, key, key.subKeys, index);
    if (pRow == nullptr)
        return std::nullopt;
    return SubKeyEntry{pRow->getColumn(1).getText(), static_cast<uint64_t>(pRow->getColumn(2).getInt64())};
}

std::optional<ValueEntry> Store::valueAt(const Key& key, UINT32 index)
{
    const SQLite::Statement* pRow = entryAt(Values, key, key.values, index);
    if (pRow == nullptr)
        return std::nullopt;
    return ValueEntry{pRow->getColumn(1).getText(), valueAtColumn(*pRow, 2)};
}

Longest Store::longest(const Key& key)
{
    if (const Longest* pKnown = m_longest.find(key.id, key.written))
        return *pKnown;
    const Use useSubKey(m_longestSubKey);
    const Use useValue(m_longestValue);
    bindAll(m_longestSubKey, key.id);
    bindAll(m_longestValue, key.id);
    m_longestSubKey.executeStep();
    m_longestValue.executeStep();
    const Longest longest{uint32At(m_longestSubKey, 0), uint32At(m_longestValue, 0), uint32At(m_longestValue, 1)};
    m_longest.keep(key.id, key.written, longest);
    return longest;
}

void Store::release()
{
    if (m_pHeld != nullptr)
        m_pHeld->tryReset();
    m_pHeld = nullptr;
}

void Store::forgetFacts()
{
    m_cursors[SubKeys].clear();
    m_cursors[Values].clear();
    m_longest.clear();
}

Store::Snapshot::Snapshot(Store& store) : m_store(store)
{
    if (sqlite3_get_autocommit(store.m_database.getHandle()) == 0)
        return;
    run(m_store.m_begin);
    m_store.m_inState = true;
}

Store::Snapshot::~Snapshot()
{
    m_store.release();
    if (!m_store.m_keepState)
        m_store.refresh();
}

void Store::keepState(bool keep)
{
    m_keepState = keep;
    refresh();
}

void Store::refresh()
{
    if (!m_inState)
        return;
    m_inState = false;
    m_end.tryExecuteStep();
    m_end.tryReset();
}

WritableStore::WritableStore(const std::string& path)
    : Store(prepareStoreFile(path), SQLite::OPEN_READWRITE), m_beginWrite(m_database, "BEGIN IMMEDIATE"),
      m_commit(m_database, "COMMIT"), m_rollback(m_database, "ROLLBACK"),
      m_addKey(m_database, "INSERT INTO regkey (parent, name, owner, written) VALUES (?, ?, ?, ?)"),
      m_touch(m_database, "UPDATE regkey SET written = max(?2, written + 1), subkey_count = subkey_count + ?3, "
                          "value_count = value_count + ?4 WHERE id = ?1"),
      m_removeKey(m_database, "DELETE FROM regkey WHERE id = ?"),
      m_removeValues(m_database, "DELETE FROM regvalue WHERE key = ?"),
      m_replaceValue(m_database, "UPDATE regvalue SET type = ?3, data = ?4 WHERE key = ?1 AND name = ?2"),
      m_addValue(m_database, "INSERT INTO regvalue (key, name, type, data) VALUES (?, ?, ?, ?)"),
      m_removeValue(m_database, "DELETE FROM regvalue WHERE key = ? AND name = ?")
{
    m_database.exec(WriterCache);
    m_database.exec("PRAGMA synchronous = FULL");
    m_database.exec("PRAGMA secure_delete = FAST");
    m_database.exec("PRAGMA journal_size_limit = 33554432");
    // In place of automatic checkpoints, which would delay the answers of the commit that sets them off.
    const auto note = [](void* pPages, sqlite3*, const char*, int pages) {
        *static_cast<int*>(pPages) = pages;
        return SQLITE_OK;
    };
    sqlite3_wal_hook(m_database.getHandle(), note, &m_logPages);
}

void WritableStore::begin() { run(m_beginWrite); }

void WritableStore::commit() { run(m_commit); }

void WritableStore::rollback()
{
    release();
    forgetFacts();               // the times that they go by may come again
    m_logPages = LogPagesToTidy; // if it was for want of room, some may be had
    if (sqlite3_get_autocommit(m_database.getHandle()) == 0) {
        m_rollback.tryExecuteStep();
        m_rollback.tryReset();
    }
}

bool WritableStore::logIsLong() const { return m_logPages >= LogPagesToTidy; }

void WritableStore::tidy()
{
    m_logPages = 0;
    sqlite3_wal_checkpoint_v2(m_database.getHandle(), nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
}

void WritableStore::touch(KeyId id, int subKeysMore, int valuesMore)
{
    run(m_touch, id, timeNow(), subKeysMore, valuesMore);
}

KeyId WritableStore::addKey(KeyId parent, const std::string& name, Owner owner)
{
    run(m_addKey, parent, name, owner, timeNow());
    const KeyId id = m_database.getLastInsertRowid();
    if (id > LastKeyId)
        throw SQLite::Exception("all key numbers have been given out", SQLITE_FULL);
    touch(parent, 1, 0);
    return id;
}

void WritableStore::removeKey(const Key& key)
{
    run(m_removeValues, key.id);
    run(m_removeKey, key.id);
    touch(key.parent, -1, 0);
}

void WritableStore::setValue(KeyId key, const std::string& name, UINT32 type, const char* pData, UINT32 length)
{
    const auto store = [&](SQLite::Statement& statement) {
        const Use use(statement);
        bindAll(statement, key, name, type);
        statement.bindNoCopy(4, length == 0 ? "" : pData, static_cast<int>(length)); // null would not be a blob
        return statement.exec();
    };
    const bool isNew = store(m_replaceValue) == 0;
    if (isNew)
        store(m_addValue);
    touch(key, 0, isNew ? 1 : 0);
}

bool WritableStore::removeValue(KeyId key, const std::string& name)
{
    if (run(m_removeValue, key, name) == 0)
        return false;
    touch(key, 0, -1);
    return true;
}

REGSTATUS statusOf(const SQLite::Exception& failure)
{
    switch (failure.getErrorCode()) {
    case SQLITE_FULL:
        return OBREG_STATUS_STORE_FULL;
    case SQLITE_TOOBIG:
        return OBREG_STATUS_TOO_LARGE;
    default:
        return OBREG_STATUS_STORE_FAILED;
    }
}

} // namespace obregd
