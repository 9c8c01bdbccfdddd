#include <algorithm>
#include <sqlite3.h>
#include <utility>

#include "daemon/store/clock.h"
#include "daemon/store/schema.h"
#include "daemon/store/statements.h"
#include "daemon/store/store.h"

namespace obregd {

namespace {

constexpr const char* WriterCache = "PRAGMA cache_size = -8192"; // KiB
constexpr int ShortTimeoutMs = 50;
constexpr UINT32 FewValues = 1000;               // more than that are cleared away later
constexpr int64_t FewBytes = int64_t{16} << 20;  // so are more bytes than that, as far as is known
constexpr int64_t PieceBytes = int64_t{4} << 20; // that clearSome() clears away at once

constexpr const char* SetRow =
    "UPDATE regkey SET (written, subkey_count, value_count, subkey_name_max, subkey_name_ties, value_name_max, "
    "value_name_ties, value_data_max, value_data_ties) = (?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10) WHERE id = ?1";
constexpr const char* ValuesOf = "SELECT id, length(CAST(name AS BLOB)), length(data) FROM regvalue "
                                 "INDEXED BY regvalue_order WHERE key = ? ORDER BY id";
constexpr const char* FindValue = "SELECT id, length(CAST(name AS BLOB)), length(data) FROM regvalue "
                                  "WHERE key = ? AND name = ?";
constexpr const char* LeftValues = "SELECT id, length(CAST(name AS BLOB)) + length(data) FROM regvalue "
                                   "INDEXED BY regvalue_order WHERE key = ? ORDER BY id LIMIT ?";

int64_t size(const std::string& name) { return static_cast<int64_t>(name.size()); }

} // namespace

WritableStore::WritableStore(const std::string& path)
    : Store(prepareStoreFile(path), SQLite::OPEN_READWRITE), m_beginWrite(m_database, "BEGIN IMMEDIATE"),
      m_commit(m_database, "COMMIT"), m_rollback(m_database, "ROLLBACK"),
      m_addKey(m_database, "INSERT INTO regkey (parent, name, owner, written) VALUES (?, ?, ?, ?)"),
      m_setRow(m_database, SetRow), m_removeKey(m_database, "DELETE FROM regkey WHERE id = ? RETURNING name"),
      m_removeValues(m_database, "DELETE FROM regvalue WHERE key = ?"), m_findValue(m_database, FindValue),
      m_replaceValue(m_database, "UPDATE regvalue SET type = ?2, data = ?3 WHERE id = ?1"),
      m_addValue(m_database, "INSERT INTO regvalue (id, type, data, key, name) VALUES (?, ?, ?, ?, ?)"),
      m_removeValue(m_database, "DELETE FROM regvalue WHERE id = ?"),
      m_lastValueRow(m_database, "SELECT ifnull(max(id), 0) FROM regvalue"),
      m_usage(m_database, "SELECT keys, bytes, numbers FROM usage WHERE owner = ?"),
      m_setUsage(m_database, "REPLACE INTO usage (owner, keys, bytes, numbers) VALUES (?, ?, ?, ?)"),
      m_addLeftover(m_database, "INSERT INTO leftover (key, owner) VALUES (?, ?)"),
      m_firstLeftover(m_database, "SELECT key, owner FROM leftover LIMIT 1"), m_leftValues(m_database, LeftValues),
      m_clearValues(m_database, "DELETE FROM regvalue INDEXED BY regvalue_order WHERE key = ? AND id <= ?"),
      m_removeLeftover(m_database, "DELETE FROM leftover WHERE key = ?"),
      m_lastNumber(m_database, "SELECT seq FROM sqlite_sequence WHERE name = 'regkey'"),
      m_freePages(m_database, "PRAGMA freelist_count"), m_valuesOf(m_database, ValuesOf),
      m_savepoint(m_database, "SAVEPOINT part"), m_rollbackTo(m_database, "ROLLBACK TO part"),
      m_releaseSavepoint(m_database, "RELEASE part"), m_journal(m_database), m_journalReader(m_database),
      m_secrets(m_database), m_tokenWriter(m_database), m_depths(m_database)
{
    m_database.exec(WriterCache);
    m_database.exec("PRAGMA synchronous = FULL");
    m_database.exec("PRAGMA temp_store = MEMORY"); // what a savepoint goes back to: it needs no room on another disk
    m_database.exec("PRAGMA journal_size_limit = 33554432");
    // In place of automatic checkpoints, which would delay the answers of the commit that sets them off.
    const auto note = [](void* pPages, sqlite3*, const char*, int pages) {
        *static_cast<int*>(pPages) = pages;
        return SQLITE_OK;
    };
    sqlite3_wal_hook(m_database.getHandle(), note, &m_logPages);
    distrust();
}

void WritableStore::begin()
{
    const auto isLocked = [this](bool locked) {
        if (std::exchange(m_lockedOut, locked) != locked)
            setPatience();
    };
    try {
        run(m_beginWrite);
        isLocked(false);
    } catch (const SQLite::Exception& failure) {
        isLocked(isBusy(failure));
        throw;
    }
    lookAround();
    if (othersWrote())
        distrust();
}

void WritableStore::commit()
{
    storeUsage();
    ++m_pShared->commitsBegun;
    run(m_commit);
    m_pShared->positions.committed();
    m_pShared->commitsOver = m_pShared->commitsBegun.load();
    for (const Owner owner : m_changedAccounts)
        m_accounts[owner].stored = m_accounts[owner].now;
    m_changedAccounts.clear();
    m_journal.committed();
    m_secrets.committed();
    m_tokenWriter.committed();
    if (m_cleared) {
        m_pShared->leftovers.gone();
        m_hasToClear = m_cleared = false;
    }
}

void WritableStore::rollback()
{
    release();
    m_logPages = std::max(m_logPages, m_maxLogPages); // if it was for want of room, some may be had
    if (sqlite3_get_autocommit(m_database.getHandle()) == 0) {
        m_rollback.tryExecuteStep();
        m_rollback.tryReset();
    }
    Store::distrust(); // the times that it goes by may come again
    m_pShared->commitsOver = m_pShared->commitsBegun.load();
    for (const Owner owner : m_changedAccounts)
        m_accounts[owner].now = m_accounts[owner].stored;
    m_changedAccounts.clear();
    m_journal.rolledBack();
    m_secrets.rolledBack();
    m_depths.clear();
    m_tokenWriter.rolledBack();
    m_cleared = false;
}

WritableStore::Savepoint::Savepoint(WritableStore& store)
    : m_store(store), m_journal(store.m_journal.ends()), m_secrets(store.m_secrets.point()),
      m_removals(store.m_pShared->positions.noted())
{
    for (const Owner owner : store.m_changedAccounts)
        m_accounts.emplace_back(owner, store.m_accounts[owner].now);
    store.release();
    run(store.m_savepoint);
}

void WritableStore::Savepoint::keep()
{
    m_store.release();
    run(m_store.m_releaseSavepoint);
    m_kept = true;
}

WritableStore::Savepoint::~Savepoint()
{
    if (m_kept)
        return;
    m_store.release();
    for (SQLite::Statement* const pStatement : {&m_store.m_rollbackTo, &m_store.m_releaseSavepoint}) {
        pStatement->tryExecuteStep(); // when it fails, all is rolled back, or cannot be committed
        pStatement->tryReset();
    }
    for (const Owner owner : m_store.m_changedAccounts)
        m_store.m_accounts[owner].now = m_store.m_accounts[owner].stored;
    for (const auto& [owner, usage] : m_accounts)
        m_store.m_accounts[owner].now = usage;
    m_store.m_journal.rolledBack(m_journal);
    m_store.m_secrets.rolledBack(m_secrets);
    m_store.m_depths.clear(); // the numbers of keys that were made may be used again
    m_store.m_pShared->positions.takeBack(m_removals);
}

/// What is known of the file is not to be relied on any more.
void WritableStore::distrust()
{
    Store::distrust();
    m_accounts.clear();
    m_changedAccounts.clear();
    m_depths.clear();
    m_journal.distrust();
    m_secrets.distrust();
    m_tokenWriter.distrust();
    m_lastValueRowUsed = std::max(m_lastValueRowUsed, [this] {
        const Use use(m_lastValueRow);
        m_lastValueRow.executeStep();
        return m_lastValueRow.getColumn(0).getInt64();
    }());
    const Use use(m_firstLeftover);
    m_hasToClear = m_firstLeftover.executeStep();
    if (m_hasToClear)
        m_pShared->leftovers.coming();
}

uint64_t WritableStore::freePages()
{
    const Use use(m_freePages);
    return m_freePages.executeStep() ? static_cast<uint64_t>(m_freePages.getColumn(0).getInt64()) : 0;
}

void WritableStore::setPatience()
{
    sqlite3_busy_timeout(m_database.getHandle(), m_lockedOut ? ShortTimeoutMs : BusyTimeoutMs);
}

bool WritableStore::restartLog()
{
    sqlite3* const pHandle = m_database.getHandle();
    sqlite3_busy_timeout(pHandle, 0);
    const int result = sqlite3_wal_checkpoint_v2(pHandle, nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
    setPatience();
    return result == SQLITE_OK;
}

int WritableStore::finishTidying()
{
    int pages = 0;
    int moved = 0;
    if (sqlite3_wal_checkpoint_v2(m_database.getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, &pages, &moved) !=
        SQLITE_OK)
        return m_logPages;
    return pages - moved;
}

std::vector<Change> WritableStore::changesAfter(int64_t number)
{
    std::vector<Change> changes;
    const auto all = [](ChangeKind, KeyId, KeyId) { return true; };
    m_journalReader.read({number, m_journal.last() + 1}, all, [&](Change&& change) {
        changes.push_back(std::move(change));
        return true;
    });
    return changes;
}

/// A key's row, to be changed, with the new time.
Store::Row WritableStore::changing(KeyId id)
{
    Row row = this->row(id);
    row.written = std::max(m_time != 0 ? m_time : timeNow(), row.written + 1);
    return row;
}

/// Writes a key's row, which has changed.
void WritableStore::writeRow(KeyId id, Row& row)
{
    auto& [subKeyName, valueName, valueData] = row.lengths;
    if (row.subKeys == 0)
        subKeyName = {};
    if (row.values == 0)
        valueName = valueData = {};
    run(m_setRow, id, row.written, row.subKeys, row.values, subKeyName.length, subKeyName.ties, valueName.length,
        valueName.ties, valueData.length, valueData.ties);
}

KeyId WritableStore::addKey(KeyId parent, const std::string& name, Owner owner)
{
    Row above = changing(parent);
    ++above.subKeys;
    above.lengths.subKeyName.add(size(name));
    writeRow(parent, above);
    run(m_addKey, parent, name, owner, above.written); // no older than its parent, also when the clock was set back
    const KeyId id = m_database.getLastInsertRowid();
    m_journal.keyMade(id, parent, name, above.written);
    if (id > LastKeyId)
        throw SQLite::Exception("all key numbers have been given out", SQLITE_FULL);
    Usage& taken = change(owner);
    ++taken.keys;
    ++taken.numbers;
    ++m_work.keysMade;
    taken.bytes += name.size();
    return id;
}

void WritableStore::removeKey(const Key& key)
{
    Row above = changing(key.parent);
    const bool large = isLarge(key);
    if (large)
        leaveValues(key);
    else if (key.values != 0)
        removeValues(key, above.written);
    m_secrets.unmarked(key.id);
    const std::string name = removeRow(key);
    m_journal.keyDeleted(key.id, key.parent, name, large ? key.values : 0, above.written);
    if (--above.subKeys < 0 || !above.lengths.subKeyName.remove(size(name)))
        throwDamaged(key.parent, "it had not the sub-key that is being deleted");
    writeRow(key.parent, above);
    m_pShared->positions.removing(key.parent, Entries::SubKeys, above.written, key.id);
}

/// Removes a key's row. Returns its name.
std::string WritableStore::removeRow(const Key& key)
{
    const Use use(m_removeKey);
    bindAll(m_removeKey, key.id);
    if (!m_removeKey.executeStep())
        throwDamaged(key.id, "its row is missing");
    std::string name = m_removeKey.getColumn(0).getString();
    m_removeKey.executeStep(); // to its end
    giveBack(key.owner, size(name));
    Usage& taken = change(key.owner);
    taken.keys -= std::min<uint64_t>(taken.keys, 1);
    return name;
}

/// Whether a key has more values than can be removed at once.
bool WritableStore::isLarge(const Key& key)
{
    return key.values > FewValues || (key.values != 0 && row(key.id).lengths.valueData.length * key.values > FewBytes);
}

/// Leaves a key's values for clearSome().
void WritableStore::leaveValues(const Key& key)
{
    m_pShared->leftovers.coming();
    m_hasToClear = true;
    m_cleared = false;
    run(m_addLeftover, key.id, key.owner);
}

void WritableStore::removeValues(const Key& key, uint64_t time)
{
    int64_t bytes = 0;
    const bool secret = m_secrets.has(key.id); // before the mark goes
    {
        const Use use(m_valuesOf);
        for (bindAll(m_valuesOf, key.id); m_valuesOf.executeStep();) {
            const auto at = [&](int column) { return m_valuesOf.getColumn(column).getInt64(); };
            m_journal.valueChanges(ChangeKind::ValueDeleted, key.id, {at(0), at(1), at(2)}, secret, time);
            bytes += at(1) + at(2);
        }
    }
    giveBack(key.owner, bytes);
    run(m_removeValues, key.id);
}

bool WritableStore::clearSome(int maxRows)
{
    if (m_journal.isTooLong())
        m_journal.dropSome(maxRows, PieceBytes);
    if (m_secrets.hasToClear())
        m_secrets.clearSome(maxRows);
    return (m_hasToClear && clearLeftovers(maxRows)) || m_journal.isTooLong() || m_secrets.hasToClear();
}

bool WritableStore::clearLeftovers(int maxRows)
{
    const auto first = [this]() -> std::optional<std::pair<KeyId, Owner>> {
        const Use use(m_firstLeftover);
        if (!m_firstLeftover.executeStep())
            return std::nullopt;
        return std::pair(m_firstLeftover.getColumn(0).getInt64(), m_firstLeftover.getColumn(1).getInt64());
    };
    const auto leftover = first();
    if (!leftover) {
        m_cleared = true;
        return false;
    }
    const auto [key, owner] = *leftover;
    int rows = 0;
    int64_t bytes = 0;
    int64_t last = 0;
    {
        const Use use(m_leftValues);
        for (bindAll(m_leftValues, key, maxRows); bytes < PieceBytes && m_leftValues.executeStep(); ++rows) {
            last = m_leftValues.getColumn(0).getInt64();
            bytes += m_leftValues.getColumn(1).getInt64();
        }
    }
    run(m_clearValues, key, last);
    giveBack(owner, bytes);
    if (rows < maxRows && bytes < PieceBytes)
        run(m_removeLeftover, key);
    m_cleared = !first();
    return !m_cleared;
}

std::optional<WritableStore::FoundValue> WritableStore::findValue(KeyId key, const std::string& name)
{
    const Use use(m_findValue);
    bindAll(m_findValue, key, name);
    if (!m_findValue.executeStep())
        return std::nullopt;
    const auto at = [this](int column) { return m_findValue.getColumn(column).getInt64(); };
    return FoundValue{at(0), at(1), at(2)};
}

void WritableStore::setValue(KeyId key, const std::string& name, UINT32 type, const char* pData, UINT32 length)
{
    const auto store = [&](SQLite::Statement& statement, int64_t valueRow) {
        const Use use(statement);
        bindAll(statement, valueRow, type);
        statement.bindNoCopy(3, length == 0 ? "" : pData, static_cast<int>(length)); // null would not be a blob
        if (&statement == &m_addValue) {
            statement.bind(4, key);
            statement.bindNoCopy(5, name);
        }
        statement.exec();
    };
    Row row = changing(key);
    if (const auto old = findValue(key, name)) {
        m_journal.valueChanges(ChangeKind::ValueSet, key, *old, m_secrets.has(key), row.written);
        store(m_replaceValue, old->id);
        if (!row.lengths.valueData.remove(old->dataLength))
            throwDamaged(key, "a value is longer than its longest");
        if (old->dataLength != length) {
            giveBack(row.owner, old->dataLength);
            change(row.owner).bytes += length;
        }
    } else {
        m_journal.valueMade(key, name, m_secrets.has(key), row.written);
        store(m_addValue, ++m_lastValueRowUsed);
        ++row.values;
        row.lengths.valueName.add(size(name));
        change(row.owner).bytes += name.size() + length;
    }
    row.lengths.valueData.add(length);
    writeRow(key, row);
    if (isSecretMark(name))
        m_secrets.marked(key, m_journal.last());
}

bool WritableStore::removeValue(KeyId key, const std::string& name)
{
    const auto old = findValue(key, name);
    if (!old)
        return false;
    Row row = changing(key);
    m_journal.valueChanges(ChangeKind::ValueDeleted, key, *old, m_secrets.has(key), row.written);
    run(m_removeValue, old->id);
    if (isSecretMark(name))
        m_secrets.unmarked(key);
    if (--row.values < 0 || !row.lengths.valueName.remove(old->nameLength) ||
        !row.lengths.valueData.remove(old->dataLength))
        throwDamaged(key, "it had not the value that is being deleted");
    giveBack(row.owner, old->nameLength + old->dataLength);
    writeRow(key, row);
    m_pShared->positions.removing(key, Entries::Values, row.written, old->id);
    return true;
}

WritableStore::Account& WritableStore::accountOf(Owner owner)
{
    if (const auto known = m_accounts.find(owner); known != m_accounts.end())
        return known->second;
    const Use use(m_usage);
    bindAll(m_usage, owner);
    const auto at = [this](int column) { return static_cast<uint64_t>(m_usage.getColumn(column).getInt64()); };
    const Usage stored = m_usage.executeStep() ? Usage{at(0), at(1), at(2)} : Usage();
    return m_accounts.emplace(owner, Account{stored, stored}).first->second;
}

/// An owner's usage, to be changed.
Usage& WritableStore::change(Owner owner)
{
    Account& account = accountOf(owner);
    if (std::find(m_changedAccounts.begin(), m_changedAccounts.end(), owner) == m_changedAccounts.end())
        m_changedAccounts.push_back(owner);
    return account.now;
}

void WritableStore::giveBack(Owner owner, int64_t bytes)
{
    m_work.bytesGivenBack += static_cast<uint64_t>(bytes);
    Usage& taken = change(owner);
    taken.bytes -= std::min(taken.bytes, static_cast<uint64_t>(bytes));
}

void WritableStore::storeUsage()
{
    for (const Owner owner : m_changedAccounts) {
        auto& [now, stored] = m_accounts[owner];
        if (now != stored)
            run(m_setUsage, owner, now.keys, now.bytes, now.numbers);
    }
}

/// The last key number that was given out.
int64_t WritableStore::lastNumber()
{
    const Use use(m_lastNumber);
    return m_lastNumber.executeStep() ? m_lastNumber.getColumn(0).getInt64() : 0;
}

bool WritableStore::allowsKeys(Owner owner, uint64_t count, uint64_t nameBytes)
{
    const Usage taken = usage(owner);
    return taken.keys + count <= m_quota.keys && taken.bytes + nameBytes <= m_quota.bytes &&
           leavesNumbers(taken, count, LastKeyId - ReservedKeyNumbers - lastNumber());
}

bool WritableStore::fitsQuota(Owner owner, const Usage& before)
{
    const Usage taken = usage(owner);
    return taken.keys <= std::max(m_quota.keys, before.keys) && taken.bytes <= std::max(m_quota.bytes, before.bytes) &&
           (taken.numbers == before.numbers || leavesNumbers(taken, 0, LastKeyId - ReservedKeyNumbers - lastNumber()));
}

bool WritableStore::allowsValue(const Key& key, const std::string& name, UINT32 length)
{
    const uint64_t taken = usage(key.owner).bytes;
    if (taken + name.size() + length <= m_quota.bytes)
        return true;
    const auto old = findValue(key.id, name);
    return old &&
           (length <= old->dataLength || taken - static_cast<uint64_t>(old->dataLength) + length <= m_quota.bytes);
}

} // namespace obregd
