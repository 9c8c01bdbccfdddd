#include "daemon/serve/job.h"

#include <algorithm>

namespace obregd {

namespace {

/// For so long it counts that another user has asked for something.
constexpr auto Lately = std::chrono::seconds(1);

} // namespace

void refuse(Job& job, REGSTATUS status) noexcept
{
    try {
        job.reply = job.pOperation->refuse(status);
    } catch (const std::bad_alloc&) {
        job.reply = Reply();
    }
}

void JobQueue::push(JobLane& lane, JobPtr pJob)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_pLast != &lane.user) {
            if (m_pLast != nullptr)
                m_changed = Clock::now();
            m_pLast = &lane.user;
        }
        pJob->pLane = &lane;
        lane.jobs.append(std::move(pJob));
        m_turns.enter(lane.place);
        ++m_size;
    }
    m_wakeUp.notify_one(); // now that it can take the lock
}

JobList JobQueue::takeBack(JobLane& lane)
{
    const std::lock_guard lock(m_mutex);
    m_turns.leave(lane.place);
    m_size -= lane.jobs.size();
    return std::move(lane.jobs);
}

JobPtr JobQueue::take(int mostOfOneUser, Clock::time_point now)
{
    if (m_holds != 0 && !m_finishing)
        return nullptr;
    JobLane* const pLane = m_turns.next([&](const JobLane& lane) {
        return lane.user.running < mostOfOneUser && (m_finishing || lane.user.notBefore <= now);
    });
    if (pLane == nullptr)
        return nullptr;
    JobPtr pJob = pLane->jobs.pop();
    m_turns.passOn(pLane->place, !pLane->jobs.empty());
    ++pLane->user.running;
    --m_size;
    return pJob;
}

JobPtr JobQueue::tryPop(int mostOfOneUser)
{
    const std::lock_guard lock(m_mutex);
    return take(mostOfOneUser, Clock::now());
}

JobPtr JobQueue::pop(int mostOfOneUser)
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        const Clock::time_point now = Clock::now();
        if (JobPtr pJob = take(mostOfOneUser, now))
            return pJob;
        if (std::exchange(m_woken, false))
            return nullptr;
        if (m_turns.empty()) {
            if (m_finishing)
                return nullptr;
            m_wakeUp.wait(lock);
            continue;
        }
        // Whoever has as much as he may have under way calls done(); the others' time comes.
        Clock::time_point next = now + Lately;
        static_cast<void>(m_turns.next([&](const JobLane& lane) {
            if (lane.user.notBefore > now)
                next = std::min(next, lane.user.notBefore);
            return false;
        }));
        m_wakeUp.wait_until(lock, next);
    }
}

void JobQueue::done(const Job& job, Clock::duration pause)
{
    {
        const std::lock_guard lock(m_mutex);
        --job.pLane->user.running;
        const Clock::time_point now = Clock::now();
        if (pause > Clock::duration::zero() && now - m_changed < Lately)
            job.pLane->user.notBefore = now + pause;
    }
    m_wakeUp.notify_one();
}

void JobQueue::hold(bool begins)
{
    const std::lock_guard lock(m_mutex);
    m_holds += begins ? 1 : -1;
    if (m_holds == 0)
        m_wakeUp.notify_all();
}

bool JobQueue::isIdle() const
{
    const std::lock_guard lock(m_mutex);
    return m_turns.empty() && !m_finishing;
}

size_t JobQueue::size() const
{
    const std::lock_guard lock(m_mutex);
    return m_size;
}

void JobQueue::wake()
{
    {
        const std::lock_guard lock(m_mutex);
        m_woken = true;
    }
    m_wakeUp.notify_all();
}

bool JobQueue::isFinished() const
{
    const std::lock_guard lock(m_mutex);
    return m_finishing && m_turns.empty();
}

void JobQueue::finish()
{
    const std::lock_guard lock(m_mutex);
    m_finishing = true;
    m_wakeUp.notify_all();
}

} // namespace obregd
