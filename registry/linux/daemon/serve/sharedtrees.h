// Trees that are shared with other machines, as the thread that commits sees them. See engine/sharing.h.
//
// All but the constructor and start() are for that thread.
#ifndef OBREG_DAEMON_SERVE_SHAREDTREES_H
#define OBREG_DAEMON_SERVE_SHAREDTREES_H

#include <functional>

#include "daemon/serve/job.h"

namespace obregd {

class Transactions;

class SharedTrees {
public:
    virtual ~SharedTrees() = default;

    /// Before anything else. `wake`, on whatever thread, asks for a turn().
    virtual void start(std::function<void()> wake) = 0;
    /// Carries a job out, inside a transaction; what it has done in a shared tree is undone, and to be proposed.
    virtual void serve(Job& job, const std::function<void(SharedCalls&)>& act) = 0;
    /// Takes the jobs that have something to propose out of a batch whose transaction is over, and proposes it.
    virtual void send(JobList& batch) = 0;
    /// Applies what others and oneself have changed. Returns the jobs that are to be answered now.
    virtual JobList turn(Transactions& transactions) = 0;
    /// Whether nobody waits.
    virtual bool isIdle() const = 0;
    /// Ends it: asks for no more turns, and returns all who wait, answered as if the engine could not be reached.
    virtual JobList end() = 0;
};

} // namespace obregd

#endif
