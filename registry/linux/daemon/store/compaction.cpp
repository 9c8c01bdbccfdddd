#include "daemon/store/compaction.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sqlite3.h>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include "daemon/files.h"
#include "daemon/store/pacing.h"
#include "daemon/store/schema.h"

namespace obregd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int Incremental = 2; // PRAGMA auto_vacuum
constexpr auto Hold = std::chrono::milliseconds(10);
constexpr int64_t PagesOfAPiece = 256;
constexpr auto LeastPause = std::chrono::milliseconds(50);
constexpr int RestFactor = 10;
constexpr int LongLog = 4000; // pages; the daemon tidies it up by then, unless somebody is in the way
constexpr auto LookPause = std::chrono::milliseconds(100);
constexpr auto LogPatience = std::chrono::seconds(60);
constexpr auto LastPatience = std::chrono::seconds(5);

/// Asks for the lock each millisecond: between a busy daemon's transactions there is little time to get it.
int waitForLock(void*, int tries)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return tries < std::chrono::milliseconds(LogPatience).count() ? 1 : 0;
}

/// Beside a daemon.
class InPieces {
public:
    explicit InPieces(SQLite::Database& database) : m_database(database), m_pacing(database.getHandle())
    {
        database.exec("PRAGMA synchronous = FULL");
    }

    /// Whether all of it is in the file by the end.
    bool run()
    {
        for (int64_t rest = freePages(); rest > 0;) {
            const int64_t given = piece();
            if (given == 0)
                break;
            rest -= given; // no more than there was: a daemon may go on making some
            std::this_thread::sleep_for(std::max<Clock::duration>(LeastPause, m_held * RestFactor));
            if (!moveLog(LongLog, LogPatience))
                throw std::runtime_error(m_database.getFilename() +
                                         ": another program, a backup or a check perhaps, has kept the log from being "
                                         "moved into the file for a minute; what was done stays done, try again later");
        }
        return moveLog(0, LastPatience);
    }

private:
    int64_t freePages() { return m_database.execAndGet("PRAGMA freelist_count").getInt64(); }

    /// The number of pages given back.
    int64_t piece()
    {
        SQLite::Transaction transaction(m_database, SQLite::TransactionBehavior::IMMEDIATE);
        const Clock::time_point begun = Clock::now();
        const int64_t before = freePages();
        int64_t left = before;
        int64_t last = 0;
        do {
            last = left;
            m_database.exec("PRAGMA incremental_vacuum(8)");
            left = freePages();
        } while (left != 0 && left < last && before - left < PagesOfAPiece && Clock::now() - begun < Hold);
        transaction.commit();
        m_held = Clock::now() - begun;
        return before - left;
    }

    /// Moves the log into the file until no more than that many pages remain in it; false when somebody else's old
    /// state, or writers, prevent that for so long.
    bool moveLog(int mostPages, Clock::duration patience)
    {
        const Clock::time_point until = Clock::now() + patience;
        for (;;) {
            int pages = 0;
            int moved = 0;
            const int result =
                sqlite3_wal_checkpoint_v2(m_database.getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, &pages, &moved);
            if (result != SQLITE_OK && result != SQLITE_BUSY)
                throw SQLite::Exception(m_database.getHandle(), result);
            if (result == SQLITE_OK && pages - moved <= mostPages)
                return true;
            if (Clock::now() > until)
                return false;
            std::this_thread::sleep_for(LookPause);
        }
    }

    SQLite::Database& m_database;
    const Pacing m_pacing;
    Clock::duration m_held{};
};

StoreLock lockAgainstDaemons(const std::string& path)
{
    try {
        return StoreLock(path);
    } catch (const std::exception& failure) {
        throw std::runtime_error(std::string(failure.what()) +
                                 "; this store was made without what compacting beside a daemon takes, so it has to be "
                                 "done once without: systemctl stop obregd.socket obregd.service, --compact, and start "
                                 "them again");
    }
}

SQLite::Database openToWrite(const std::string& path)
{
    SQLite::Database database(path, SQLite::OPEN_READWRITE);
    sqlite3_busy_handler(database.getHandle(), waitForLock, nullptr);
    if (!isStore(database))
        throw std::runtime_error(path + ": is not a registry store; name the store with --store");
    return database;
}

/// Returns whether all of it is in the file.
bool compact(const std::string& path)
{
    {
        SQLite::Database database = openToWrite(path);
        if (database.execAndGet("PRAGMA auto_vacuum").getInt() == Incremental)
            return InPieces(database).run();
    }
    const StoreLock lock = lockAgainstDaemons(path); // not while SQLite has the file open, see there
    SQLite::Database database = openToWrite(path);
    database.exec("PRAGMA auto_vacuum = INCREMENTAL");
    database.exec("VACUUM");
    database.exec("PRAGMA wal_checkpoint(TRUNCATE)");
    return true;
}

const char* adviceOn(int code)
{
    switch (code) {
    case SQLITE_FULL:
        return "; make room on the store's disk and, when the store is compacted for the first time, in /var/tmp";
    case SQLITE_BUSY:
        return "; another program writes to it all the time; what was done stays done, try again later";
    case SQLITE_CORRUPT:
        return "; --check tells more, restore a backup";
    default:
        return "; is it a registry store, and free to be written?";
    }
}

} // namespace

Compaction compactStore(const std::string& storePath)
{
    if (access(storePath.c_str(), R_OK | W_OK) != 0)
        throw std::runtime_error(storePath + ": cannot be written: " + std::strerror(errno) +
                                 "; name the store with --store, and run this as root or as the daemon's user");
    try {
        Compaction done;
        done.before = std::filesystem::file_size(storePath);
        done.isInFile = compact(storePath);
        done.after = std::filesystem::file_size(storePath);
        return done;
    } catch (const SQLite::Exception& failure) {
        throw std::runtime_error(storePath + ": cannot be compacted: " + failure.what() +
                                 adviceOn(failure.getErrorCode()));
    }
}

} // namespace obregd
