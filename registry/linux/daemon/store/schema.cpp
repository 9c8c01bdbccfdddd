#include "daemon/store/schema.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <stdexcept>

#include "daemon/store/clock.h"
#include "daemon/store/store.h"

namespace obregd {

namespace {

constexpr int ApplicationId = 0x4F425247; // "OBRG", where the file utility looks for it
constexpr int SchemaVersion = 1;

constexpr const char* Tables = R"(
    CREATE TABLE regkey (
        id INTEGER PRIMARY KEY AUTOINCREMENT,
        parent INTEGER NOT NULL,
        name TEXT NOT NULL COLLATE NOCASE,
        owner INTEGER NOT NULL,
        written INTEGER NOT NULL,
        subkey_count INTEGER NOT NULL DEFAULT 0,
        value_count INTEGER NOT NULL DEFAULT 0
    ) STRICT;
    CREATE UNIQUE INDEX regkey_name ON regkey (parent, name);
    CREATE INDEX regkey_order ON regkey (parent);

    CREATE TABLE regvalue (
        id INTEGER PRIMARY KEY,
        key INTEGER NOT NULL,
        name TEXT NOT NULL COLLATE NOCASE,
        type INTEGER NOT NULL,
        data BLOB NOT NULL
    ) STRICT;
    CREATE UNIQUE INDEX regvalue_name ON regvalue (key, name);
    CREATE INDEX regvalue_order ON regvalue (key);
)";

void makeTables(SQLite::Database& database)
{
    database.exec("BEGIN"); // whoever fails before the end closes the database, which undoes it
    database.exec(Tables);
    SQLite::Statement addRoot(database, "INSERT INTO regkey (id, parent, name, owner, written) VALUES (?, 0, ?, ?, ?)");
    const struct {
        KeyId id;
        const char* pName;
    } roots[] = {{ClassesId, "classes"}, {MachineId, "machine"}, {UsersId, "users"}};
    for (const auto& root : roots) {
        addRoot.bind(1, root.id);
        addRoot.bind(2, root.pName);
        addRoot.bind(3, MachineOwner);
        addRoot.bind(4, static_cast<int64_t>(timeNow()));
        addRoot.exec();
        addRoot.reset();
    }
    database.exec("UPDATE sqlite_sequence SET seq = " + std::to_string(FirstKeyId - 1) + " WHERE name = 'regkey'");
    database.exec("PRAGMA application_id = " + std::to_string(ApplicationId));
    database.exec("PRAGMA user_version = " + std::to_string(SchemaVersion));
    database.exec("COMMIT");
}

} // namespace

const std::string& prepareStoreFile(const std::string& path)
{
    try {
        SQLite::Database database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_NOMUTEX);
        const int id = database.execAndGet("PRAGMA application_id").getInt();
        const int version = database.execAndGet("PRAGMA user_version").getInt();
        const int tables = database.execAndGet("SELECT count(*) FROM sqlite_schema").getInt();
        if (id == 0 && version == 0 && tables == 0) {
            database.exec("PRAGMA journal_mode = WAL");
            makeTables(database);
        } else if (id != ApplicationId) {
            throw std::runtime_error(path + ": is not a registry store; give another path with --store");
        } else if (version != SchemaVersion) {
            throw std::runtime_error(path + ": was written by another version of obregd (format " +
                                     std::to_string(version) + ", this one knows " + std::to_string(SchemaVersion) +
                                     "); run that version or give another path with --store");
        }
    } catch (const SQLite::Exception& failure) {
        throw std::runtime_error(path + ": cannot be used as a store: " + failure.what() +
                                 "; make it accessible, restore it from a copy, or give another path with --store");
    }
    return path;
}

} // namespace obregd
