// A request on its way through the daemon's other threads, and the queue in front of these.
//
// A Job belongs to one thread at a time: the server's, then the queue's, the worker's, and the server's again. A
// JobQueue is for any thread; its lock guards the turns and the lanes in it.
#ifndef OBREG_DAEMON_SERVE_JOB_H
#define OBREG_DAEMON_SERVE_JOB_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "daemon/operations.h"
#include "daemon/serve/payload.h"
#include "daemon/serve/turns.h"

namespace obregd {

class Connection;
struct JobLane;
struct SharedWork;
using JobClock = std::chrono::steady_clock;

/// One request and, when it comes back, its reply.
struct Job {
    std::shared_ptr<Connection> pConnection; ///< whom to answer
    uint32_t reqId = 0;
    Peer peer{};
    const Operation* pOperation = nullptr;
    Payload request{};
    Reply reply{};
    JobLane* pLane = nullptr;                         ///< of the queue that it went through last
    bool needsWriter = false;                         ///< in place of a reply: it is one for the committer
    std::shared_ptr<const Plan> pPlan{};              ///< of a transaction, which takes the request's place
    size_t extraWork = 0;                             ///< that it made, in bytes that would have been as much
    std::optional<Wait> wait{};                       ///< in place of a reply: there is nothing to tell yet
    std::optional<JobClock::time_point> waitsUntil{}; ///< once it has waited
    std::shared_ptr<SharedWork> pShared{};            ///< while it is about a shared tree
    std::unique_ptr<Job> pNext{};                     ///< in a JobList

    /// Bytes that it makes the daemon hold; a job without data has its cost too.
    size_t cost() const { return request.capacity() + (pPlan == nullptr ? 0 : pPlan->bytes) + Overhead; }
    /// Whether it takes something away and adds nothing.
    bool frees() const { return pPlan == nullptr ? pOperation->frees : pPlan->frees; }
    static constexpr size_t Overhead = 512;
};

using JobPtr = std::unique_ptr<Job>;

/// Sets the reply that gives a status and nothing else; none, which becomes an error packet, when there is no memory.
void refuse(Job& job, REGSTATUS status) noexcept;

/// Jobs in a row, first in, first out. Allocates nothing.
class JobList {
public:
    JobList() = default;
    JobList(JobList&& other) noexcept { append(std::move(other)); }
    JobList& operator=(JobList&& other) noexcept
    {
        clear();
        append(std::move(other));
        return *this;
    }
    ~JobList() { clear(); }

    bool empty() const { return m_pFirst == nullptr; }
    const Job& front() const { return *m_pFirst; }
    Job* first() const { return m_pFirst.get(); }
    size_t size() const { return m_size; }

    void append(JobPtr pJob)
    {
        Job* const pLast = pJob.get();
        (m_pLast == nullptr ? m_pFirst : m_pLast->pNext) = std::move(pJob);
        m_pLast = pLast;
        ++m_size;
    }

    void append(JobList&& other)
    {
        if (other.empty())
            return;
        (m_pLast == nullptr ? m_pFirst : m_pLast->pNext) = std::move(other.m_pFirst);
        m_pLast = std::exchange(other.m_pLast, nullptr);
        m_size += std::exchange(other.m_size, 0);
    }

    JobPtr pop()
    {
        JobPtr pJob = std::move(m_pFirst);
        m_pFirst = std::move(pJob->pNext);
        if (m_pFirst == nullptr)
            m_pLast = nullptr;
        --m_size;
        return pJob;
    }

    /// The first ones, as many as that.
    JobList split(size_t count)
    {
        JobList front;
        while (count-- != 0)
            front.append(pop());
        return front;
    }

    size_t cost() const
    {
        size_t sum = 0;
        for (const Job* pJob = m_pFirst.get(); pJob != nullptr; pJob = pJob->pNext.get())
            sum += pJob->cost();
        return sum;
    }

    void clear()
    {
        while (!empty())
            pop();
    }

private:
    JobPtr m_pFirst;
    Job* m_pLast = nullptr;
    size_t m_size = 0;
};

/// Jobs that wait for a worker, in turns by user and by connection.
class JobQueue {
public:
    using Clock = JobClock;

    /// A user's part in it.
    struct User {
        Turns<JobLane>::User turns;
        int running = 0;             ///< jobs taken and not done
        Clock::time_point notBefore; ///< when he may have the next turn
    };

    /// To the end of its lane, which outlives it.
    void push(JobLane& lane, JobPtr pJob);

    /// Takes back the jobs of a lane that no worker has taken yet.
    JobList takeBack(JobLane& lane);

    /// The job whose turn it is. Waits for one that may be taken: a user has no more than mostOfOneUser taken and not
    /// done. Null when the end was asked for and no job is left, and after wake().
    JobPtr pop(int mostOfOneUser);
    /// Lets one pop() end that waits, or would.
    void wake();
    bool isFinished() const;
    /// The same, null when it would have to wait.
    JobPtr tryPop(int mostOfOneUser);

    /// A job is done. With a pause, its user comes last for that long, if others have asked for something lately.
    void done(const Job& job, Clock::duration pause = {});

    /// Gives out no more jobs from now on (true), or does again (false): as often as was asked for. Any thread.
    void hold(bool begins);

    /// Whether pop() would have to wait.
    bool isIdle() const;

    /// The jobs that no worker has taken yet.
    size_t size() const;

    /// Lets pop() end.
    void finish();

private:
    JobPtr take(int mostOfOneUser, Clock::time_point now);

    mutable std::mutex m_mutex; // guards what follows, and all lanes
    std::condition_variable m_wakeUp;
    Turns<JobLane> m_turns;
    size_t m_size = 0;
    const User* m_pLast = nullptr; // who pushed last
    Clock::time_point m_changed;   // when that was last another than before
    int m_holds = 0;
    bool m_finishing = false;
    bool m_woken = false;
};

/// A connection's part in a queue.
struct JobLane {
    explicit JobLane(JobQueue::User& owner) : user(owner), place(*this, owner.turns) {}
    JobQueue::User& user;
    Turns<JobLane>::Place place;
    JobList jobs;
};

} // namespace obregd

#endif
