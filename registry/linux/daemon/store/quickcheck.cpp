#include "daemon/store/quickcheck.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <algorithm>
#include <sqlite3.h>
#include <sys/resource.h>

#include "daemon/log.h"

namespace obregd {

namespace {

constexpr int LowestPriority = 19;
constexpr auto BetweenInterrupts = std::chrono::milliseconds(10);
constexpr const char* Remedy = "obregd --check tells more; stop the daemon and restore a backup";

} // namespace

QuickCheck::QuickCheck(std::string storePath) : m_path(std::move(storePath))
{
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::exception& failure) {
        logLine(LOG_WARNING, "%s: is not checked at this start: %s", m_path.c_str(), failure.what());
    }
}

QuickCheck::~QuickCheck()
{
    {
        const std::lock_guard lock(m_mutex);
        m_silent = true;
    }
    stop();
    if (m_thread.joinable())
        m_thread.join();
}

void QuickCheck::stop()
{
    std::unique_lock lock(m_mutex);
    m_stop = true;
    do // an interrupt before the statement runs is none
        if (m_pRunning != nullptr)
            sqlite3_interrupt(m_pRunning);
    while (!m_ended.wait_for(lock, BetweenInterrupts, [this] { return m_pRunning == nullptr; }));
}

void QuickCheck::limit()
{
    const std::lock_guard lock(m_mutex);
    if (m_pRunning != nullptr && Clock::now() >= m_end)
        sqlite3_interrupt(m_pRunning);
}

void QuickCheck::setRunning(sqlite3* pDatabase)
{
    const std::lock_guard lock(m_mutex);
    m_pRunning = m_stop ? nullptr : pDatabase;
    m_ended.notify_all();
}

bool QuickCheck::is(const bool& flag)
{
    const std::lock_guard lock(m_mutex);
    return flag;
}

void QuickCheck::run()
{
    setpriority(PRIO_PROCESS, 0, LowestPriority); // of this thread
    try {
        const std::string problem = firstProblem();
        if (!problem.empty())
            logLine(LOG_WARNING, "%s: is damaged: %s; %s", m_path.c_str(), problem.c_str(), Remedy);
    } catch (const SQLite::Exception& failure) {
        const int code = failure.getErrorCode();
        if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB)
            logLine(LOG_WARNING, "%s: is damaged: %s; %s", m_path.c_str(), failure.what(), Remedy);
        else if (code != SQLITE_INTERRUPT)
            logLine(LOG_WARNING, "%s: is not checked at this start: %s", m_path.c_str(), failure.what());
        else if (!is(m_silent))
            logLine(LOG_NOTICE, "%s: no damage found so far; obregd --check looks at all of it", m_path.c_str());
    } catch (const std::exception& failure) {
        logLine(LOG_WARNING, "%s: is not checked at this start: %s", m_path.c_str(), failure.what());
    }
    logLine(LOG_DEBUG, "%s: the check at the start has ended", m_path.c_str());
}

/// In one line; empty for a sound store, and when it is to stop.
std::string QuickCheck::firstProblem()
{
    SQLite::Database database(m_path, SQLite::OPEN_READONLY);
    const struct Running {
        explicit Running(QuickCheck& itsCheck, sqlite3* pDatabase) : check(itsCheck) { check.setRunning(pDatabase); }
        ~Running() { check.setRunning(nullptr); }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;
        QuickCheck& check;
    } running(*this, database.getHandle());
    SQLite::Statement check(database, "PRAGMA quick_check(1)");
    if (is(m_stop) || !check.executeStep())
        return {};
    std::string line = check.getColumn(0);
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line == "ok" ? "" : line;
}

} // namespace obregd
