#include "daemon/store/tidier.h"

#include <algorithm>
#include <limits>
#include <sqlite3.h>
#include <utility>

#include "daemon/log.h"

namespace obregd {

namespace {

constexpr auto FirstPause = std::chrono::milliseconds(100);
constexpr auto LongestBackOff = std::chrono::seconds(4);
constexpr auto Quiet = std::chrono::milliseconds(100); // without a commit: the thread does the rest itself
constexpr int MostRounds = 8;
constexpr auto Patience = std::chrono::milliseconds(500); // with readers who have been asked
constexpr auto Look = std::chrono::milliseconds(5);
constexpr int LittleShare = 16; // what is left of a long log when it is the committing thread's turn
constexpr int LeastPages = 16;

} // namespace

Tidier::Tidier(const std::string& path, WritableStore& store, std::function<void(bool)> tidying)
    : m_path(path), m_store(store), m_tidying(std::move(tidying)), m_database(path, SQLite::OPEN_READWRITE),
      m_pause(FirstPause)
{
    m_database.execAndGet("PRAGMA schema_version"); // opens the log
    m_thread = std::thread([this] { work(); });
}

Tidier::~Tidier()
{
    {
        const std::lock_guard lock(m_mutex);
        m_over = true;
    }
    m_wakeUp.notify_one();
    m_thread.join();
}

void Tidier::transactionOver()
{
    const int pages = m_store.logPages();
    const int before = std::exchange(m_pages, pages);
    if (!m_store.logIsLong() && pages >= before) // nothing to begin, and nothing that could have ended
        return;
    const std::lock_guard lock(m_mutex);
    if (m_phase == Phase::Idle && m_store.logIsLong() && Clock::now() >= m_notBefore) {
        m_phase = Phase::Moving;
        m_little = std::max(pages / LittleShare, LeastPages);
        m_wakeUp.notify_one();
    } else if (m_phase == Phase::Finishing) {
        if (pages < before)
            end(true);
        else if (Clock::now() > m_finishBy)
            end(false);
        else
            m_store.finishTidying();
    }
}

void Tidier::work()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wakeUp.wait(lock, [this] { return m_over || m_phase == Phase::Moving; });
        if (m_over)
            return;
        const bool patient = m_prevented;
        if (patient)
            ask();
        lock.unlock();
        const bool moved = moveMost(patient);
        lock.lock();
        if (m_over)
            return;
        if (!moved) {
            end(false);
            continue;
        }
        m_phase = Phase::Finishing;
        m_finishBy = Clock::now() + Patience;
        ask();
        if (m_wakeUp.wait_for(lock, Quiet, [this] { return m_over || m_phase != Phase::Finishing; }))
            continue;
        lock.unlock();
        const auto [pages, done] = move();
        lock.lock();
        if (m_phase == Phase::Finishing)
            end(pages == done);
    }
}

/// Asks the readers to keep no state until end(); with the lock held.
void Tidier::ask()
{
    if (!std::exchange(m_asking, true))
        m_tidying(true);
}

/// Moves until little is left; false when a reader, whom it may wait for, or a failure is in the way.
bool Tidier::moveMost(bool patient)
{
    const Clock::time_point until = Clock::now() + Patience;
    int before = -1;
    for (int round = 0; round < MostRounds;) {
        const auto [pages, moved] = move();
        if (pages - moved <= m_little)
            return true;
        if (moved > before)
            ++round;
        else if (!patient || m_failing || Clock::now() > until)
            return false;
        else
            std::this_thread::sleep_for(Look);
        before = std::max(before, moved);
    }
    return false;
}

Tidier::Progress Tidier::move()
{
    Progress progress{0, 0};
    const int result = sqlite3_wal_checkpoint_v2(m_database.getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                                 &progress.pages, &progress.moved);
    const bool fails = result != SQLITE_OK && result != SQLITE_BUSY;
    if (fails && !m_failing)
        logLine(LOG_ERR, "%s: the log cannot be moved into the file: %s; it grows until it can; is the disk full?",
                m_path.c_str(), sqlite3_errstr(result));
    m_failing = fails;
    return result == SQLITE_OK ? progress : Progress{std::numeric_limits<int>::max(), 0};
}

/// Ends a round of tidying; with the lock held.
void Tidier::end(bool progress)
{
    m_pause = progress ? FirstPause : std::min<Clock::duration>(m_pause * 2, LongestBackOff);
    m_notBefore = Clock::now() + (progress ? Clock::duration::zero() : m_pause);
    m_prevented = !progress;
    m_phase = Phase::Idle;
    if (std::exchange(m_asking, false))
        m_tidying(false);
    m_wakeUp.notify_one();
}

} // namespace obregd
