#include "daemon/store/schema.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <stdexcept>
#include <unistd.h>

#include "daemon/files.h"
#include "daemon/log.h"
#include "daemon/store/clock.h"
#include "daemon/store/facts.h"
#include "daemon/store/maintenance.h"
#include "daemon/store/statements.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

constexpr int ApplicationId = 0x4F425247; // "OBRG", where the file utility looks for it

constexpr const char* Format1 = R"(
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

constexpr const char* Format2 = R"(
    ALTER TABLE regkey ADD COLUMN subkey_name_max INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE regkey ADD COLUMN subkey_name_ties INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE regkey ADD COLUMN value_name_max INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE regkey ADD COLUMN value_name_ties INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE regkey ADD COLUMN value_data_max INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE regkey ADD COLUMN value_data_ties INTEGER NOT NULL DEFAULT 0;

    CREATE TABLE usage (
        owner INTEGER PRIMARY KEY,
        keys INTEGER NOT NULL,
        bytes INTEGER NOT NULL,
        numbers INTEGER NOT NULL
    ) STRICT;

    CREATE TABLE leftover (
        key INTEGER PRIMARY KEY,
        owner INTEGER NOT NULL
    ) STRICT;
)";

constexpr const char* Format3 = R"(
    CREATE TABLE change (
        number INTEGER PRIMARY KEY,
        position INTEGER NOT NULL,
        time INTEGER NOT NULL,
        uid INTEGER NOT NULL,
        pid INTEGER NOT NULL,
        kind INTEGER NOT NULL,
        key INTEGER NOT NULL,
        parent INTEGER NOT NULL,
        name TEXT NOT NULL COLLATE NOCASE,
        joined INTEGER,
        type INTEGER,
        length INTEGER,
        data BLOB,
        secret INTEGER
    ) STRICT;
    CREATE INDEX change_deleted ON change (key) WHERE kind = 2;

    CREATE INDEX regvalue_secret ON regvalue (key) WHERE name = ')" OBREG_SECRET_VALUE R"(';
    CREATE TABLE token (
        id INTEGER PRIMARY KEY,
        uid INTEGER NOT NULL,
        name TEXT NOT NULL,
        hash INTEGER NOT NULL,
        number INTEGER NOT NULL,
        time INTEGER NOT NULL
    ) STRICT;
    CREATE UNIQUE INDEX token_name ON token (uid, name);
    CREATE INDEX token_order ON token (uid);
)";

void setFormat(SQLite::Database& database) { database.exec("PRAGMA user_version = " + std::to_string(StoreFormat)); }

void makeTables(SQLite::Database& database)
{
    database.exec("BEGIN"); // whoever fails before the end closes the database, which undoes it
    database.exec(Format1);
    database.exec(Format2);
    database.exec(Format3);
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
    setFormat(database);
    database.exec("COMMIT");
}

/// Which of the store's files cannot be used for want of rights, and what helps; empty when that is not what is wrong.
std::string missingRights(const std::string& path)
{
    for (const char* const pSuffix : {"", "-wal", "-shm"})
        if (const std::string file = path + pSuffix; access(file.c_str(), R_OK | W_OK) != 0)
            if (std::string advice = rightsAdvice(file); !advice.empty())
                return advice;
    return {};
}

void upgradeTo2(SQLite::Database& database)
{
    database.exec(Format2);
    SQLite::Statement setLengths(database, std::string("UPDATE regkey SET (") + LengthColumns +
                                               ") = (?2, ?3, ?4, ?5, ?6, ?7) WHERE id = ?1");
    const auto usage = workOut(database, [&](KeyId id, const Lengths&, const Lengths& found) {
        const auto& [subKeyName, valueName, valueData] = found;
        if (subKeyName.ties != 0 || valueName.ties != 0)
            run(setLengths, id, subKeyName.length, subKeyName.ties, valueName.length, valueName.ties, valueData.length,
                valueData.ties);
    });
    SQLite::Statement addUsage(database, "INSERT INTO usage (owner, keys, bytes, numbers) VALUES (?, ?, ?, ?)");
    for (const auto& [owner, taken] : usage)
        run(addUsage, owner, taken.keys, taken.bytes, taken.numbers);
}

void upgrade(SQLite::Database& database, const std::string& path, int format)
{
    const std::string backup = freeName(path + ".format-" + std::to_string(format));
    backUpStore(path, backup);
    logLine(LOG_NOTICE, "%s: is of format %d and becomes format %d; a copy of it as it was is %s", path.c_str(), format,
            StoreFormat, backup.c_str());
    database.exec("BEGIN IMMEDIATE"); // whoever fails before the end closes the database, which undoes it
    if (format < 2)
        upgradeTo2(database);
    database.exec(Format3);
    setFormat(database);
    database.exec("COMMIT");
}

} // namespace

bool isStore(SQLite::Database& database)
{
    return database.execAndGet("PRAGMA application_id").getInt() == ApplicationId;
}

const std::string& prepareStoreFile(const std::string& path)
{
    try {
        SQLite::Database database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_NOMUTEX);
        const int version = database.execAndGet("PRAGMA user_version").getInt();
        const int tables = database.execAndGet("SELECT count(*) FROM sqlite_schema").getInt();
        if (!isStore(database) && version == 0 && tables == 0) {
            database.exec("PRAGMA auto_vacuum = INCREMENTAL"); // for compactStore(); before anything is in the file
            database.exec("PRAGMA journal_mode = WAL");
            makeTables(database);
            logLine(LOG_WARNING, "made a new, empty registry at %s", path.c_str());
        } else if (!isStore(database)) {
            throw std::runtime_error(path + ": is not a registry store; give another path with --store");
        } else if (version > 0 && version < StoreFormat) {
            upgrade(database, path, version);
        } else if (version != StoreFormat) {
            throw std::runtime_error(path + ": was written by another version of obregd (format " +
                                     std::to_string(version) + ", this one knows " + std::to_string(StoreFormat) +
                                     "); run that version or give another path with --store");
        }
    } catch (const SQLite::Exception& failure) {
        throw std::runtime_error(path + ": cannot be used as a store: " + failure.what() + missingRights(path) +
                                 "; make it accessible, restore it from a copy, or give another path with --store");
    }
    return path;
}

} // namespace obregd
