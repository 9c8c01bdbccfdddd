// Group commit: the thread that does everything that writes.
//
// While it waits for the disk, requests to write pile up; it takes them in turns (job.h), runs as many as fit in a few
// milliseconds and megabytes in one transaction (transactions.h) and gives the answers out when that is durable. So
// many clients share one wait for the disk, nobody waits for all that somebody else has asked for, and an answer means:
// it is there.
//
// What deleted keys have left behind is cleared while nobody waits, and bit by bit while somebody does.
//
// The callbacks come on the committer's own thread and must not block. That thread is the only one that uses the
// writable store meanwhile.
#ifndef OBREG_DAEMON_SERVE_COMMITTER_H
#define OBREG_DAEMON_SERVE_COMMITTER_H

#include <functional>
#include <thread>

#include "daemon/serve/transactions.h"
#include "daemon/store/tidier.h"

namespace obregd {

class Committer {
public:
    struct Callbacks {
        /// A batch is durable, or refused; and what has changed.
        std::function<void(JobList&&, std::vector<Touched>&&)> answered;
        std::function<void(bool)> tidying; ///< readers are to keep no state from now on, or may again; from the
                                           ///< tidier's thread too
        std::function<void()> ended;       ///< after the queue's finish(): the last batch has been answered
    };

    /// The guard and the shared trees may be null.
    Committer(WritableStore& store, WriteGuard* pGuard, SharedTrees* pShared, JobQueue& queue, Callbacks callbacks);
    /// Finishes the queue and waits.
    ~Committer();

private:
    using Clock = JobQueue::Clock;

    void work();
    void turn();
    JobList runBatch(JobPtr pFirst);
    void done(const JobList& batch, Clock::duration taken);
    bool clear(int rows);

    WritableStore& m_store;
    SharedTrees* const m_pShared;
    JobQueue& m_queue;
    Callbacks m_callbacks;
    Transactions m_transactions;
    Tidier m_tidier;
    // The shortest batch of late: since some batches, and in those before.
    Clock::duration m_leastNow = Clock::duration::max();
    Clock::duration m_leastBefore = Clock::duration::max();
    unsigned m_batches = 0;
    std::thread m_thread; // last: it uses all the others
};

} // namespace obregd

#endif
