// Runs requests that write, many in one transaction, so that all that can be done are and nothing of the others stays.
//
// When a transaction fails, its jobs are run again by halves, down to the one that cannot be done: it spoils no other.
// Where it is nobody's job that is to blame (another program has the store locked) it is refused at once.
//
// Belongs to the thread that owns the writable store.
#ifndef OBREG_DAEMON_SERVE_TRANSACTIONS_H
#define OBREG_DAEMON_SERVE_TRANSACTIONS_H

#include <functional>
#include <optional>

#include "daemon/log.h"
#include "daemon/serve/sharedtrees.h"

namespace obregd {

/// Whether the place where the store is can take a write: a disk with room, files that are still the same.
class WriteGuard {
public:
    virtual ~WriteGuard() = default;
    /// Looks at it anew, before a transaction whose first job is this. False when there would be room if the store's
    /// log could begin anew.
    virtual bool look(const Job& first) = 0;
    /// OBREG_STATUS_SUCCESS, or the status with which the job is refused. frees: it takes away and adds nothing.
    virtual REGSTATUS judge(const Job& job, bool frees) = 0;
    /// Lets the log begin anew; false when a reader's state is in the way.
    virtual bool tidy() = 0;
    /// A transaction has failed for want of room: gives what only takes away the room that was kept for it.
    virtual void giveReserve() = 0;
};

class Transactions {
public:
    /// The guard and the shared trees, which may be null, and the store outlive it. tidying: readers are to keep no
    /// state from now on (true), or may again (false).
    explicit Transactions(WritableStore& store, WriteGuard* pGuard = nullptr, std::function<void(bool)> tidying = {},
                          SharedTrees* pShared = nullptr)
        : m_store(store), m_pGuard(pGuard), m_tidying(std::move(tidying)), m_pShared(pShared)
    {}

    /// Runs the jobs that next() gives, until it gives null or one fails. Each comes back with its reply. Pass next by
    /// std::ref where there may be no memory.
    JobList run(const std::function<JobPtr()>& next);

    /// Runs an action in a transaction of its own; false, with a line in the log, when it failed and nothing stayed.
    bool runOne(const std::function<void()>& action);

private:
    struct Failure {
        REGSTATUS status;
        bool atOnce; ///< all that was in the transaction is to be refused
    };

    std::optional<Failure> transact(const std::function<void()>& action);
    void makeRoom();
    void runPart(JobList& jobs);
    void runAgain(JobList& jobs, const Failure& failure);
    void serve(Job& job);
    void act(Job& job, SharedCalls* pCalls);
    void carryOut(Job& job, SharedCalls* pCalls);
    REGSTATUS judge(const Job& job, bool frees) { return m_pGuard == nullptr ? 0 : m_pGuard->judge(job, frees); }
    static void refuse(Job& job, REGSTATUS status);

    WritableStore& m_store;
    WriteGuard* const m_pGuard;
    const std::function<void(bool)> m_tidying;
    SharedTrees* const m_pShared;
    LogLimit m_log;
};

} // namespace obregd

#endif
