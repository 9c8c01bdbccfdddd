// The threads that do the reads that take long: big values, long walks, what has to be worked out. So such a read keeps
// nobody waiting but those who want the same.
//
// Each has a Store of its own and takes one job after the other from a queue in which users take turns. One user's jobs
// take all threads but one at most. A job whose client has gone is not begun, unless it is a transaction; none is begun
// while the queue is held, so that the store's log can begin anew.
#ifndef OBREG_DAEMON_SERVE_READERS_H
#define OBREG_DAEMON_SERVE_READERS_H

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/log.h"
#include "daemon/serve/job.h"

namespace obregd {

class Readers {
public:
    /// Called on a reader's thread, for each job; must not block.
    using Answered = std::function<void(JobPtr)>;

    Readers(const std::string& storePath, JobQueue& queue, size_t maxStatements, Answered answered);
    ~Readers();

    /// Lets the jobs that have begun fail soon. Any thread.
    void interrupt();

private:
    static constexpr int Threads = 2;
    void work(Store& store);
    void read(Job& job, Store& store);
    void end();

    JobQueue& m_queue;
    const size_t m_maxStatements; // of a transaction
    const Answered m_answered;
    std::mutex m_logMutex; // guards m_log
    LogLimit m_log;
    std::vector<std::unique_ptr<Store>> m_stores;
    std::vector<std::thread> m_threads; // last: they use all the others
};

} // namespace obregd

#endif
