// Group commit: the thread that does everything that writes.
//
// While it waits for the disk, requests to write pile up; it takes the whole pile, runs it in one transaction and gives
// the answers out when that is durable. So many clients share one wait for the disk, and an answer means: it is there.
//
// submit() and finish() are for any thread; the callbacks come on the committer's own thread and must not block. That
// thread is the only one that uses the writable store meanwhile.
#ifndef OBREG_DAEMON_SERVE_COMMITTER_H
#define OBREG_DAEMON_SERVE_COMMITTER_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "daemon/operations.h"
#include "daemon/serve/payload.h"

namespace obregd {

class Connection;

/// One request to write and, when it comes back, its reply.
struct WriteJob {
    std::shared_ptr<Connection> pConnection; ///< whom to answer; not looked at here
    uint32_t reqId = 0;
    Peer peer{};
    const Operation* pOperation = nullptr;
    Payload request;
    Reply reply{};
};

using Batch = std::vector<WriteJob>;

class Committer {
public:
    struct Callbacks {
        std::function<void(Batch&&)> answered; ///< a batch is durable, or refused
        std::function<void(bool)> tidying;     ///< the store is about to be tidied: readers keep no state; over again
        std::function<void()> ended;           ///< after finish(): the last batch has been answered
    };

    Committer(WritableStore& store, Callbacks callbacks);
    /// Finishes and waits.
    ~Committer();

    void submit(WriteJob&& job);

    /// Asks for the end, once all that was submitted is done. Does not wait.
    void finish();

    /// Runs the jobs in one transaction and fills in their replies. When that fails, nothing of it stays, and each half
    /// of the jobs is run by itself, down to the one that cannot be done: it spoils no other.
    static void run(WritableStore& store, std::span<WriteJob> jobs);

private:
    void work();

    WritableStore& m_store;
    Callbacks m_callbacks;
    std::mutex m_mutex; // guards what follows
    std::condition_variable m_wakeUp;
    Batch m_waiting;
    bool m_finishing = false;
    std::thread m_thread; // last: it uses all the others
};

} // namespace obregd

#endif
