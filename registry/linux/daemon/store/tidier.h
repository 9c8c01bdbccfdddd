// Moves the store's log into its file, so that the log begins anew and stays short, without making a write wait.
//
// A thread with its own connection does most of it while writes go on. That never quite catches up with writers, and a
// log begins anew only in a commit that finds all of it moved and no reader in an older state. So the short rest is the
// committing thread's: once little is left, readers are asked to keep no state, what remains is moved after a commit,
// and the next commit begins the log anew. No write waits for a reader or a lock here. When a reader's state prevents
// progress, the next round begins with asking the daemon's own readers, and gives them half a second to end what they
// are at; what an operator's state prevents is tried again after a pause that doubles up to some seconds.
//
// Made, told and destroyed by the thread that commits. `tidying` is called with true and then false, in turn, by that
// thread or the tidier's own, and must not block or call back.
#ifndef OBREG_DAEMON_STORE_TIDIER_H
#define OBREG_DAEMON_STORE_TIDIER_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "daemon/store/pacing.h"
#include "daemon/store/store.h"

namespace obregd {

class Tidier {
public:
    /// tidying: readers are to keep no state from now on (true), or may again (false).
    Tidier(const std::string& path, WritableStore& store, std::function<void(bool)> tidying);
    ~Tidier();

    /// After each transaction, committed or rolled back; outside begin() and commit(). Costs next to nothing while the
    /// log is short (see WritableStore::setMaxLogPages).
    void transactionOver();

private:
    using Clock = std::chrono::steady_clock;
    enum class Phase { Idle, Moving, Finishing };
    struct Progress {
        int pages, moved;
    };

    void work();
    bool moveMost(bool patient);
    Progress move();
    void ask();
    void end(bool progress);

    const std::string m_path;
    WritableStore& m_store; // the committing thread's
    const std::function<void(bool)> m_tidying;
    SQLite::Database m_database; // the thread's own
    Pacing m_pacing{m_database.getHandle()};
    bool m_failing = false; // the thread's own
    int m_pages = 0;        // the committing thread's: in the log after its last commit

    std::mutex m_mutex; // guards what follows
    std::condition_variable m_wakeUp;
    Phase m_phase = Phase::Idle;
    bool m_asking = false;    // readers are asked to keep no state
    bool m_prevented = false; // the last round made no progress
    Clock::time_point m_finishBy;
    bool m_over = false;
    int m_little = 0;
    Clock::duration m_pause;
    Clock::time_point m_notBefore;
    std::thread m_thread; // last: it uses all the others
};

} // namespace obregd

#endif
