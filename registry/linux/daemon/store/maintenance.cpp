#include "daemon/store/maintenance.h"

#include <SQLiteCpp/Backup.h>
#include <SQLiteCpp/SQLiteCpp.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sqlite3.h>
#include <stdexcept>
#include <unistd.h>

#include "daemon/files.h"
#include "daemon/store/facts.h"
#include "daemon/store/pacing.h"
#include "daemon/store/schema.h"

namespace obregd {

namespace {

constexpr int BusyTimeoutMs = 10000;
constexpr int WholeStore =
    -1; // in one step, from one state: a daemon that writes meanwhile does not make it start anew

/// Each question gives a sentence for each thing that is wrong. It can be asked of stores of these formats.
constexpr struct {
    int firstFormat, lastFormat;
    const char* pText;
} Questions[] = {
    {1, StoreFormat,
     "SELECT format('key %d says that it has %d sub-keys, but has %d', id, subkey_count, found) FROM "
     "(SELECT id, subkey_count, (SELECT count(*) FROM regkey AS child WHERE child.parent = regkey.id) AS found "
     "FROM regkey) WHERE found <> subkey_count LIMIT 100"},

    {1, StoreFormat,
     "SELECT format('key %d says that it has %d values, but has %d', id, value_count, found) FROM "
     "(SELECT id, value_count, (SELECT count(*) FROM regvalue WHERE key = regkey.id) AS found "
     "FROM regkey) WHERE found <> value_count LIMIT 100"},

    {1, StoreFormat,
     "WITH RECURSIVE reached(id) AS (SELECT id FROM regkey WHERE parent = 0 "
     "UNION ALL SELECT regkey.id FROM regkey JOIN reached ON regkey.parent = reached.id) "
     "SELECT format('key %d hangs on no root', id) FROM regkey WHERE id NOT IN reached LIMIT 100"},

    {1, 1,
     "SELECT format('value %d belongs to key %d, which is not there', id, key) FROM regvalue "
     "WHERE key NOT IN (SELECT id FROM regkey) LIMIT 100"},
    {2, StoreFormat,
     "SELECT format('value %d belongs to key %d, which is not there', id, key) FROM regvalue "
     "WHERE key NOT IN (SELECT id FROM regkey UNION ALL SELECT key FROM leftover) LIMIT 100"},

    {2, StoreFormat,
     "SELECT format('key %d is to be cleared away, but is there', key) FROM leftover "
     "WHERE key IN (SELECT id FROM regkey) LIMIT 100"},

    {1, StoreFormat,
     "SELECT format('key number %d could be given out twice', max(id)) FROM regkey "
     "HAVING max(id) > ifnull((SELECT seq FROM sqlite_sequence WHERE name = 'regkey'), 0)"},
};

constexpr size_t MostOfAKind = 100;

/// Whether what is said can be so. When the greatest is not known, all are less than the last that was.
bool agree(const Greatest& said, const Greatest& found)
{
    return said == found || (said.ties == 0 && said.length > found.length && found.ties > 0);
}

void checkFacts(SQLite::Database& database, std::vector<std::string>& problems)
{
    std::vector<std::string> wrong;
    const auto usage = workOut(database, [&](KeyId id, const Lengths& said, const Lengths& found) {
        const auto check = [&](const char* pWhat, const Greatest& isSaid, const Greatest& isFound) {
            if (!agree(isSaid, isFound) && wrong.size() < MostOfAKind)
                wrong.push_back("key " + std::to_string(id) + " says that its longest " + pWhat + " has " +
                                std::to_string(isSaid.length) + " bytes (" + std::to_string(isSaid.ties) +
                                " times), but that has " + std::to_string(isFound.length) + " (" +
                                std::to_string(isFound.ties) + " times)");
        };
        check("sub-key's name", said.subKeyName, found.subKeyName);
        check("value's name", said.valueName, found.valueName);
        check("value", said.valueData, found.valueData);
    });
    auto said = usageSaid(database);
    for (const auto& [owner, taken] : usage)
        said.try_emplace(owner);
    for (const auto& [owner, isSaid] : said) {
        const auto found = usage.find(owner);
        const Usage taken = found == usage.end() ? Usage() : found->second;
        if ((isSaid.keys != taken.keys || isSaid.bytes != taken.bytes || isSaid.numbers < taken.numbers) &&
            wrong.size() < 2 * MostOfAKind)
            wrong.push_back("owner " + std::to_string(owner) + " is said to take " + std::to_string(isSaid.keys) +
                            " keys of " + std::to_string(isSaid.numbers) + " made and " + std::to_string(isSaid.bytes) +
                            " bytes, but takes " + std::to_string(taken.keys) + " keys and " +
                            std::to_string(taken.bytes) + " bytes");
    }
    problems.insert(problems.end(), wrong.begin(), wrong.end());
}

SQLite::Database openToRead(const std::string& path)
{
    if (access(path.c_str(), R_OK) != 0)
        throw std::runtime_error(path + ": cannot be read: " + std::strerror(errno) +
                                 "; name the store with --store, and run this as root or as the daemon's user");
    // Not read-only for SQLite: it would leave the log's two files behind when no daemon has them open.
    SQLite::Database database(path, SQLite::OPEN_READWRITE, BusyTimeoutMs);
    database.exec("PRAGMA query_only = ON");
    return database;
}

StoreReport examine(SQLite::Database& database)
{
    StoreReport report;
    const SQLite::Transaction oneState(database);
    SQLite::Statement structure(database, "PRAGMA integrity_check(100)");
    while (structure.executeStep())
        if (const std::string line = structure.getColumn(0); line != "ok")
            report.problems.push_back(line);
    if (!report.problems.empty())
        return report; // what a broken file says about itself is worth nothing

    const int format = database.execAndGet("PRAGMA user_version").getInt();
    for (const auto& question : Questions)
        if (format >= question.firstFormat && format <= question.lastFormat)
            for (SQLite::Statement asked(database, question.pText); asked.executeStep();)
                report.problems.push_back(asked.getColumn(0));
    if (format >= 2)
        checkFacts(database, report.problems);
    report.keys = database.execAndGet("SELECT count(*) FROM regkey").getInt64();
    report.values = database.execAndGet("SELECT ifnull(sum(value_count), 0) FROM regkey").getInt64();
    return report;
}

/// Runs what reads or copies a store; what SQLite has to say about it becomes a message that names the file.
template <class Action>
StoreReport aboutStore(const std::string& path, Action action)
{
    try {
        return action();
    } catch (const SQLite::Exception& failure) {
        throw std::runtime_error(path + ": " + failure.what() + "; is it a registry store, and free to be read?");
    }
}

[[noreturn]] void failErrno(const std::string& path, const char* pWhat)
{
    throw std::runtime_error(path + ": " + pWhat + ": " + std::strerror(errno));
}

/// A new file beside the one that it is to become, removed unless it became that.
class FileInMaking {
public:
    explicit FileInMaking(std::string target)
        : m_target(std::move(target)), m_path(m_target + ".XXXXXX"), m_file(mkostemp(m_path.data(), O_CLOEXEC))
    {
        if (m_file.get() < 0)
            failErrno(m_target, "cannot be made");
    }
    ~FileInMaking() { unlink(m_path.c_str()); }
    FileInMaking(const FileInMaking&) = delete;
    FileInMaking& operator=(const FileInMaking&) = delete;

    const std::string& path() const { return m_path; }

    /// On disk under its name when this returns.
    void finish()
    {
        if (fsync(m_file.get()) != 0)
            failErrno(m_target, "cannot be written");
        if (renameat2(AT_FDCWD, m_path.c_str(), AT_FDCWD, m_target.c_str(), RENAME_NOREPLACE) != 0)
            failErrno(m_target, "the finished copy cannot be given this name");
        const Descriptor folder(open(folderOf(m_target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder.get() < 0 || fsync(folder.get()) != 0)
            failErrno(m_target, "is there, but perhaps not after a power failure");
    }

private:
    const std::string m_target;
    std::string m_path;
    Descriptor m_file;
};

} // namespace

std::string StoreReport::summary() const
{
    return std::to_string(keys) + (keys == 1 ? " key, " : " keys, ") + std::to_string(values) +
           (values == 1 ? " value" : " values");
}

StoreReport checkStore(const std::string& storePath)
{
    return aboutStore(storePath, [&] {
        SQLite::Database database = openToRead(storePath);
        return examine(database);
    });
}

StoreReport backUpStore(const std::string& storePath, const std::string& backupPath)
{
    if (access(backupPath.c_str(), F_OK) == 0)
        throw std::runtime_error(backupPath + ": is there already; give the backup another name or move that away");
    return aboutStore(storePath, [&] {
        SQLite::Database store = openToRead(storePath);
        FileInMaking file(backupPath);
        StoreReport report;
        {
            SQLite::Database copy(file.path(), SQLite::OPEN_READWRITE);
            const Pacing pacing(copy.getHandle());
            if (SQLite::Backup(copy, store).executeStep(WholeStore) != SQLITE_DONE)
                throw std::runtime_error(storePath + ": another program holds it locked; try again later");
            report = examine(copy);
        }
        if (!report.problems.empty())
            throw std::runtime_error(storePath + ": is damaged, so no backup was made; --check says what is wrong");
        file.finish();
        return report;
    });
}

} // namespace obregd
