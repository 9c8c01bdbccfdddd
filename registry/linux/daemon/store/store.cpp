#include "daemon/store/store.h"

#include <sqlite3.h>

#include "daemon/store/enumeration.h"
#include "daemon/store/facts.h"
#include "daemon/store/statements.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

// Of the store's pages in memory, for each connection; the system's own cache holds the others.
constexpr const char* ReaderCache = "PRAGMA cache_size = -16384"; // KiB
constexpr auto MaxStateAge = std::chrono::milliseconds(100);
constexpr UINT32 BriefWalk = 2000;
constexpr int64_t BriefData = 65536;
constexpr UINT32 NearEnd = 16; // no better place is looked for than an end that is so near
constexpr size_t MaxWorkedOut = 1024;

/// A number that a store which is not damaged keeps within 32 bits.
UINT32 uint32At(const SQLite::Statement& row, int column, KeyId key)
{
    const SQLite::Column number = row.getColumn(column);
    if (!number.isInteger() || number.getInt64() < 0 || number.getInt64() > std::numeric_limits<UINT32>::max())
        throwDamaged(key, "a number of it is out of range");
    return number.getUInt();
}

/// The value in a row: its type, its data unless that is longer than maxData, and its length.
Value valueAtColumn(const SQLite::Statement& row, int typeColumn, KeyId key, int64_t maxData)
{
    const UINT32 length = uint32At(row, typeColumn + 2, key);
    if (length > maxData)
        throw TooLong();
    const SQLite::Column data = row.getColumn(typeColumn + 1);
    if (!data.isBlob())
        throwDamaged(key, "the data of a value is none");
    return {uint32At(row, typeColumn, key), static_cast<const char*>(data.getBlob()),
            static_cast<UINT32>(data.getBytes())};
}

const char* nameAtColumn(const SQLite::Statement& row, int column, KeyId key)
{
    if (!row.getColumn(column).isText())
        throwDamaged(key, "an entry of it has no name");
    return row.getColumn(column).getText();
}

// Data is not even read when it is longer than wanted.
constexpr const char* OneValue = "SELECT type, CASE WHEN length(data) <= ?3 THEN data END, length(data) "
                                 "FROM regvalue WHERE key = ?1 AND name = ?2";
constexpr const char* SubKeysUp = "SELECT id, name, written FROM regkey INDEXED BY regkey_order "
                                  "WHERE parent = ?1 AND id >= ?2 ORDER BY id LIMIT 1 OFFSET ?3";
constexpr const char* SubKeysDown = "SELECT id, name, written FROM regkey INDEXED BY regkey_order "
                                    "WHERE parent = ?1 AND id < ?2 ORDER BY id DESC LIMIT 1 OFFSET ?3";
constexpr const char* ValuesUp =
    "SELECT id, name, type, CASE WHEN length(data) <= ?4 THEN data END, length(data) "
    "FROM regvalue INDEXED BY regvalue_order WHERE key = ?1 AND id >= ?2 ORDER BY id LIMIT 1 OFFSET ?3";
constexpr const char* ValuesDown =
    "SELECT id, name, type, CASE WHEN length(data) <= ?4 THEN data END, length(data) "
    "FROM regvalue INDEXED BY regvalue_order WHERE key = ?1 AND id < ?2 ORDER BY id DESC LIMIT 1 OFFSET ?3";
constexpr const char* LongestSubKey = "SELECT ifnull(max(length(CAST(name AS BLOB))), 0) FROM regkey WHERE parent = ?";
constexpr const char* LongestValue = "SELECT ifnull(max(length(CAST(name AS BLOB))), 0), ifnull(max(length(data)), 0) "
                                     "FROM regvalue WHERE key = ?";

} // namespace

Store::Store(const std::string& path, int flags)
    : m_database(path, flags | SQLite::OPEN_NOMUTEX, BusyTimeoutMs), m_pShared(sharedOf(path)),
      m_begin(m_database, "BEGIN"), m_end(m_database, "COMMIT"), m_version(m_database, "PRAGMA data_version"),
      m_key(m_database, "SELECT parent, owner, written, subkey_count, value_count FROM regkey WHERE id = ?"),
      m_row(m_database, std::string("SELECT owner, written, subkey_count, value_count, ") + LengthColumns +
                            " FROM regkey WHERE id = ?"),
      m_child(m_database, "SELECT id FROM regkey WHERE parent = ? AND name = ?"),
      m_lastId(m_database, "SELECT seq FROM sqlite_sequence WHERE name = 'regkey'"), m_value(m_database, OneValue),
      m_hasValue(m_database, "SELECT 1 FROM regvalue WHERE key = ? AND name = ?"),
      m_longestSubKey(m_database, LongestSubKey), m_longestValue(m_database, LongestValue), m_changes(m_database),
      m_history(m_database), m_tokens(m_database), m_entriesUp{{m_database, SubKeysUp}, {m_database, ValuesUp}},
      m_entriesDown{{m_database, SubKeysDown}, {m_database, ValuesDown}}
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
               uint32At(m_key, 3, id),
               uint32At(m_key, 4, id)};
}

Store::Row Store::row(KeyId id)
{
    const Use use(m_row);
    bindAll(m_row, id);
    if (!m_row.executeStep())
        throwDamaged(id, "its row is missing");
    const auto at = [&](int column) { return uint32At(m_row, column, id); };
    return {m_row.getColumn(0).getInt64(),
            static_cast<uint64_t>(m_row.getColumn(1).getInt64()),
            at(2),
            at(3),
            {{at(4), at(5)}, {at(6), at(7)}, {at(8), at(9)}}};
}

std::optional<KeyId> Store::child(KeyId parent, const std::string& name)
{
    const Use use(m_child);
    bindAll(m_child, parent, name);
    if (!m_child.executeStep())
        return std::nullopt;
    const KeyId id = m_child.getColumn(0).getInt64();
    if (id < FirstKeyId || id > LastKeyId)
        throwDamaged(parent, "a sub-key of it has a number that no key can have");
    return id;
}

bool Store::wasIssued(KeyId id)
{
    const Use use(m_lastId);
    return id >= FirstKeyId && m_lastId.executeStep() && id <= m_lastId.getColumn(0).getInt64();
}

int64_t Store::maxData() const { return m_brief ? BriefData : std::numeric_limits<int64_t>::max(); }

std::optional<Value> Store::value(KeyId key, const std::string& name)
{
    release();
    bindAll(m_value, key, name, maxData());
    m_pHeld = &m_value;
    if (!m_value.executeStep() || (m_pShared->leftovers.mayBeThere(m_leftoversSeen) && !this->key(key)))
        return std::nullopt;
    return valueAtColumn(m_value, 0, key, maxData());
}

bool Store::hasValue(KeyId key, const std::string& name)
{
    const Use use(m_hasValue);
    bindAll(m_hasValue, key, name);
    return m_hasValue.executeStep();
}

SQLite::Statement& Store::walk(Entries entries, const Key& key, const Walk& way, int64_t maxData)
{
    release();
    const auto kind = static_cast<size_t>(entries);
    SQLite::Statement& statement = way.up ? m_entriesUp[kind] : m_entriesDown[kind];
    bindAll(statement, key.id, way.from, way.skip);
    if (entries == Entries::Values)
        statement.bind(4, maxData);
    m_pHeld = &statement;
    if (!statement.executeStep())
        throwDamaged(key.id, "it has fewer entries than it says");
    return statement;
}

SQLite::Statement* Store::entryAt(Entries entries, const Key& key, UINT32 count, UINT32 index)
{
    release();
    if (index >= count)
        return nullptr;
    Walk way = shortestWalk(index, count, nullptr);
    if (way.skip <= NearEnd || sqlite3_get_autocommit(m_database.getHandle()) != 0)
        return &walk(entries, key, way, maxData());
    const Positions::Place place{key.id, entries, key.written, m_view};
    way = m_pShared->positions.shortest(place, index, count, way);
    if (m_brief && way.skip > BriefWalk)
        throw TooLong();
    for (;;) {
        const Piece piece = firstPiece(way, index);
        const bool arrives = piece.end == index;
        SQLite::Statement& entry = walk(entries, key, piece.walk, arrives ? maxData() : 0);
        const Cursor here{piece.end, entry.getColumn(0).getInt64()};
        m_pShared->positions.leave(place, piece.walk, here);
        if (arrives)
            return &entry;
        way = {way.up, here.row, way.up ? index - here.index : here.index - index - 1};
    }
}

std::optional<SubKeyEntry> Store::subKeyAt(const Key& key, UINT32 index)
{
    const SQLite::Statement* pRow = entryAt(Entries::SubKeys, key, key.subKeys, index);
    if (pRow == nullptr)
        return std::nullopt;
    return SubKeyEntry{nameAtColumn(*pRow, 1, key.id), static_cast<uint64_t>(pRow->getColumn(2).getInt64())};
}

std::optional<ValueEntry> Store::valueAt(const Key& key, UINT32 index)
{
    const SQLite::Statement* pRow = entryAt(Entries::Values, key, key.values, index);
    if (pRow == nullptr)
        return std::nullopt;
    return ValueEntry{nameAtColumn(*pRow, 1, key.id), valueAtColumn(*pRow, 2, key.id, maxData())};
}

Longest Store::longest(const Key& key)
{
    const auto& [subKeyName, valueName, valueData] = row(key.id).lengths;
    const bool knowsSubKeys = subKeyName.known();
    const bool knowsValues = valueName.known() && valueData.known();
    Longest longest{static_cast<UINT32>(subKeyName.length), static_cast<UINT32>(valueName.length),
                    static_cast<UINT32>(valueData.length)};
    if (knowsSubKeys && knowsValues)
        return longest;
    const auto kept = m_longest.find(key.id);
    if (kept != m_longest.end() && kept->second.written == key.written)
        return kept->second.longest;
    if (m_brief && ((!knowsSubKeys && key.subKeys > BriefWalk) || (!knowsValues && key.values > BriefWalk)))
        throw TooLong();
    const auto workOut = [&](SQLite::Statement& statement, std::initializer_list<UINT32*> results) {
        const Use use(statement);
        bindAll(statement, key.id);
        statement.executeStep();
        int column = 0;
        for (UINT32* const pResult : results)
            *pResult = uint32At(statement, column++, key.id);
    };
    if (!knowsSubKeys)
        workOut(m_longestSubKey, {&longest.subKeyName});
    if (!knowsValues)
        workOut(m_longestValue, {&longest.valueName, &longest.valueData});
    if (m_longest.size() >= MaxWorkedOut)
        m_longest.clear();
    m_longest.insert_or_assign(key.id, Dated{key.written, longest});
    return longest;
}

Told Store::told(const Watched& watched)
{
    return m_changes.told(watched, m_brief ? BriefWalk : std::numeric_limits<int64_t>::max());
}

Store::Changed Store::changedSince(KeyId key, int64_t since, int64_t& most)
{
    const int64_t later = m_changes.last() - since;
    if (later > most)
        return Changed::Unknown;
    most -= std::max<int64_t>(later, 0);
    const Told told = m_changes.told({key, true, since}, later);
    return told.lost ? Changed::Unknown : told.empty() ? Changed::No : Changed::Yes;
}

std::string Store::history(const HistoryQuestion& question)
{
    if (m_brief)
        throw TooLong();
    return m_history.answer(question);
}

std::map<Owner, Usage> Store::usages() { return usageSaid(m_database); }

void Store::interrupt() { sqlite3_interrupt(m_database.getHandle()); }

void Store::release()
{
    if (m_pHeld != nullptr)
        m_pHeld->tryReset();
    m_pHeld = nullptr;
}

void Store::distrust()
{
    m_pShared->positions.forget();
    m_longest.clear();
}

void Store::lookAround()
{
    m_view = m_pShared->positions.view();
    m_leftoversSeen = m_pShared->leftovers.seen();
}

bool Store::othersWrote()
{
    const Use use(m_version);
    m_version.executeStep();
    const int64_t version = m_version.getColumn(0).getInt64();
    const int64_t before = m_versionSeen;
    m_versionSeen = version;
    return before != -1 && before != version;
}

/// Others than this process are at work when something was written, but no commit of its own has been under way since
/// the last look.
void Store::beginState()
{
    lookAround();
    const uint64_t over = m_pShared->commitsOver;
    run(m_begin);
    m_inState = true;
    m_stateBegan = Clock::now();
    if (othersWrote() && m_pShared->commitsBegun == m_commitsSeen)
        distrust();
    m_commitsSeen = over;
}

Store::Snapshot::Snapshot(Store& store) : m_store(store)
{
    if (m_store.m_inState && Clock::now() - m_store.m_stateBegan > MaxStateAge)
        m_store.refresh();
    if (sqlite3_get_autocommit(store.m_database.getHandle()) != 0)
        m_store.beginState();
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

bool isBusy(const SQLite::Exception& failure) { return failure.getErrorCode() == SQLITE_BUSY; }

void throwDamaged(KeyId key, const char* pWhat)
{
    throw SQLite::Exception("the store is damaged: key " + std::to_string(key) + ": " + pWhat +
                                "; --check tells more, restore a backup",
                            SQLITE_CORRUPT);
}

} // namespace obregd
