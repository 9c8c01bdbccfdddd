#include "daemon/store/journal.h"

#include <algorithm>

namespace obregd {

namespace {

constexpr int64_t RowBytes = 48;                    // what a change takes beside name and data, about
constexpr int64_t LeastSize = int64_t{1024} * 1024; // what watchers need
constexpr int64_t MaxDataShare = 1024;              // data that takes more of the journal than such a part is not kept

constexpr int JoinedParameter = 12; // of the two that add
constexpr int SecretParameter = 13; // of the second
constexpr const char* Add =
    "INSERT INTO change (number, position, time, uid, pid, kind, key, parent, name, length, secret, joined) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, nullif(?10, 0), nullif(?11, 0), nullif(?12, 0))";
/// Not one statement that reads and adds: inside a savepoint that takes the longer the more has been done in it.
constexpr const char* FormerOf = "SELECT name, type, length(data), CASE WHEN length(data) <= ?2 THEN data END "
                                 "FROM regvalue WHERE id = ?1";
constexpr const char* AddFormer =
    "INSERT INTO change (number, position, time, uid, pid, kind, key, name, type, length, data, parent, joined, "
    "secret) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, 0, nullif(?12, 0), nullif(?13, 0))";
constexpr const char* BothEnds = "SELECT ifnull(max(number), 0), ifnull(max(position), 0), "
                                 "ifnull((SELECT position FROM change ORDER BY number LIMIT 1), 0) FROM "
                                 "(SELECT number, position FROM change ORDER BY number DESC LIMIT 1)";
constexpr const char* Oldest = "SELECT number, position FROM change ORDER BY number LIMIT ?";
constexpr const char* StretchRows =
    "SELECT number, kind, key, parent, time, uid, pid, name, type, length, secret, data FROM change "
    "WHERE number > ?1 AND number < ?2 AND (?3 = 0 OR key = ?3 OR parent = ?3) ORDER BY number";

} // namespace

JournalWriter::JournalWriter(SQLite::Database& database)
    : m_add(database, Add), m_former(database, FormerOf), m_addFormer(database, AddFormer), m_ends(database, BothEnds),
      m_oldest(database, Oldest), m_drop(database, "DELETE FROM change WHERE number <= ?")
{
    setSize(0);
    distrust();
}

void JournalWriter::setSize(uint64_t size)
{
    m_size = std::max(static_cast<int64_t>(std::min<uint64_t>(size, INT64_MAX / 2)), LeastSize);
    m_maxData = size == 0 ? -1 : m_size / MaxDataShare;
}

void JournalWriter::distrust()
{
    const Use use(m_ends);
    m_ends.executeStep();
    const auto at = [&](int column) { return m_ends.getColumn(column).getInt64(); };
    m_stored = m_now = {at(0), at(1), at(2)};
}

/// The next change takes so many bytes.
void JournalWriter::next(int64_t bytes, KeyId key, KeyId parent)
{
    ++m_now.number;
    m_now.position += RowBytes + bytes;
    m_touched.push_back({m_now.number, key, parent});
    for (SQLite::Statement* const pStatement : {&m_add, &m_addFormer})
        pStatement->bind(JoinedParameter, m_joins ? 1 : 0);
    m_joins = true;
}

void JournalWriter::rolledBack(const Ends& to)
{
    m_now = to;
    while (!m_touched.empty() && m_touched.back().number > to.number)
        m_touched.pop_back();
}

void JournalWriter::keyMade(KeyId key, KeyId parent, const std::string& name, uint64_t time)
{
    next(static_cast<int64_t>(name.size()), key, parent);
    run(m_add, m_now.number, m_now.position, time, m_author.uid, m_author.pid, static_cast<int>(ChangeKind::KeyMade),
        key, parent, name, 0, 0);
}

void JournalWriter::keyDeleted(KeyId key, KeyId parent, const std::string& name, uint64_t valuesLost, uint64_t time)
{
    next(static_cast<int64_t>(name.size()), key, parent);
    run(m_add, m_now.number, m_now.position, time, m_author.uid, m_author.pid, static_cast<int>(ChangeKind::KeyDeleted),
        key, parent, name, valuesLost, 0);
}

void JournalWriter::valueMade(KeyId key, const std::string& name, bool isSecret, uint64_t time)
{
    next(static_cast<int64_t>(name.size()), key, 0);
    run(m_add, m_now.number, m_now.position, time, m_author.uid, m_author.pid, static_cast<int>(ChangeKind::ValueSet),
        key, 0, name, 0, isSecret);
}

void JournalWriter::valueChanges(ChangeKind kind, KeyId key, const ValueRow& row, bool isSecret, uint64_t time)
{
    const int64_t maxData = m_keepData && !isSecret ? m_maxData : -1;
    next(row.nameLength + (row.dataLength <= maxData ? row.dataLength : 0), key, 0);
    const Use former(m_former);
    const Use added(m_addFormer);
    bindAll(m_former, row.id, maxData);
    if (!m_former.executeStep())
        return;
    bindAll(m_addFormer, m_now.number, m_now.position, time, m_author.uid, m_author.pid, static_cast<int>(kind), key);
    m_addFormer.bindNoCopy(8, m_former.getColumn(0).getText());
    m_addFormer.bind(9, m_former.getColumn(1).getInt64());
    m_addFormer.bind(10, m_former.getColumn(2).getInt64());
    if (const SQLite::Column data = m_former.getColumn(3); data.isNull())
        m_addFormer.bind(11);
    else
        m_addFormer.bindNoCopy(11, data.getBlob() == nullptr ? "" : data.getBlob(), data.getBytes());
    m_addFormer.bind(SecretParameter, isSecret ? 1 : 0);
    m_addFormer.exec();
}

void JournalWriter::dropSome(int rows, int64_t bytes)
{
    int64_t upTo = 0;
    const int64_t enough = m_now.first + bytes;
    {
        const Use use(m_oldest);
        for (bindAll(m_oldest, rows); m_oldest.executeStep();) {
            const int64_t number = m_oldest.getColumn(0).getInt64();
            if (number == m_now.number || m_now.position - m_now.first <= m_size || m_now.first > enough)
                break;
            upTo = number;
            m_now.first = m_oldest.getColumn(1).getInt64();
        }
    }
    run(m_drop, upTo);
}

JournalReader::JournalReader(SQLite::Database& database)
    : m_last(database, "SELECT ifnull(max(number), 0) FROM change"),
      m_first(database, "SELECT number FROM change ORDER BY number LIMIT 1"), m_up(database, StretchRows),
      m_down(database, std::string(StretchRows) + " DESC")
{}

int64_t JournalReader::last()
{
    const Use use(m_last);
    m_last.executeStep();
    return m_last.getColumn(0).getInt64();
}

int64_t JournalReader::first()
{
    const Use use(m_first);
    return m_first.executeStep() ? m_first.getColumn(0).getInt64() : last() + 1;
}

Change JournalReader::change(const SQLite::Statement& row)
{
    const auto number = [&](int column) { return row.getColumn(column).getInt64(); };
    Change change{number(0),
                  static_cast<uint64_t>(number(4)),
                  {static_cast<uid_t>(number(5)), static_cast<pid_t>(number(6))},
                  static_cast<ChangeKind>(number(1)),
                  number(2),
                  number(3),
                  row.getColumn(7).getString(),
                  std::nullopt,
                  number(10) != 0};
    if (!row.isColumnNull(9)) {
        change.former.emplace(Former{static_cast<UINT32>(number(8)), static_cast<uint64_t>(number(9)), std::nullopt});
        if (!row.isColumnNull(11))
            change.former->data = row.getColumn(11).getString();
    }
    return change;
}

} // namespace obregd
