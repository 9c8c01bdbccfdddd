#include "daemon/store/facts.h"

#include <string>

namespace obregd {

namespace {

/// The rows of a statement whose first column is a key's number, in the order of that.
class ByKey {
public:
    ByKey(SQLite::Database& database, const char* pQuery) : m_rows(database, pQuery), m_there(m_rows.executeStep()) {}

    /// Whether the row at hand is one of that key's; those of lower numbers, of keys that are not there, are passed.
    bool isAt(KeyId id)
    {
        while (m_there && number(0) < id)
            next();
        return m_there && number(0) == id;
    }
    int64_t number(int column) const { return m_rows.getColumn(column).getInt64(); }
    void next() { m_there = m_rows.executeStep(); }

private:
    SQLite::Statement m_rows;
    bool m_there;
};

} // namespace

Lengths lengthsAt(const SQLite::Statement& row, int column)
{
    const auto at = [&](int i) { return row.getColumn(column + i).getInt64(); };
    return {{at(0), at(1)}, {at(2), at(3)}, {at(4), at(5)}};
}

std::map<Owner, Usage> workOut(SQLite::Database& database,
                               const std::function<void(KeyId, const Lengths& said, const Lengths& found)>& see)
{
    std::map<Owner, Usage> usage;
    SQLite::Statement keys(database, std::string("SELECT id, parent, owner, length(CAST(name AS BLOB)), ") +
                                         LengthColumns + " FROM regkey ORDER BY id");
    ByKey subKeys(database, "SELECT parent, length(CAST(name AS BLOB)) FROM regkey INDEXED BY regkey_name "
                            "ORDER BY parent");
    ByKey values(database, "SELECT key, length(CAST(name AS BLOB)), length(data) FROM regvalue ORDER BY key");
    while (keys.executeStep()) {
        const KeyId id = keys.getColumn(0).getInt64();
        const bool root = keys.getColumn(1).getInt64() == 0;
        int64_t bytes = root ? 0 : keys.getColumn(3).getInt64();
        Lengths found;
        for (; subKeys.isAt(id); subKeys.next())
            found.subKeyName.add(subKeys.number(1));
        for (; values.isAt(id); values.next()) {
            found.valueName.add(values.number(1));
            found.valueData.add(values.number(2));
            bytes += values.number(1) + values.number(2);
        }
        if (!root || bytes != 0) {
            Usage& ofOwner = usage[keys.getColumn(2).getInt64()];
            ofOwner.keys += root ? 0 : 1;
            ofOwner.numbers += root ? 0 : 1;
            ofOwner.bytes += static_cast<uint64_t>(bytes);
        }
        see(id, lengthsAt(keys, 4), found);
    }
    SQLite::Statement leftovers(database, "SELECT owner, sum(length(CAST(name AS BLOB)) + length(data)) "
                                          "FROM leftover JOIN regvalue USING (key) GROUP BY owner");
    while (leftovers.executeStep())
        usage[leftovers.getColumn(0).getInt64()].bytes += static_cast<uint64_t>(leftovers.getColumn(1).getInt64());
    return usage;
}

std::map<Owner, Usage> usageSaid(SQLite::Database& database)
{
    std::map<Owner, Usage> usage;
    SQLite::Statement rows(database, "SELECT owner, keys, bytes, numbers FROM usage");
    const auto at = [&](int column) { return static_cast<uint64_t>(rows.getColumn(column).getInt64()); };
    while (rows.executeStep())
        usage[rows.getColumn(0).getInt64()] = {at(1), at(2), at(3)};
    return usage;
}

} // namespace obregd
