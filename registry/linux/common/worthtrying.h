// Whether to stay awake for something that another thread or process is about to do, or to sleep at once.
//
// Staying awake saves a sleep and a wake-up when the other runs on another processor and is quick; else it keeps the
// other from running. Which of the two holds is not known beforehand but seldom changes: so it goes by how
// the last tries went.
#ifndef OBREG_COMMON_WORTHTRYING_H
#define OBREG_COMMON_WORTHTRYING_H

#include <algorithm>
#include <atomic>

/// Tells the processor that this thread polls.
inline void cpuPause() { __builtin_ia32_pause(); }

/// One kind of try. After a try that failed, the next ones are left out, twice as many each time; it takes about five
/// that succeed to make up for one that failed. Any thread: what two of them mix up costs a try.
class WorthTrying {
public:
    /// Whether to try now. When true, result() follows, unless there was nothing left to try.
    bool now()
    {
        const int leaveOut = m_leaveOut.load(std::memory_order_relaxed);
        if (leaveOut > 0)
            m_leaveOut.store(leaveOut - 1, std::memory_order_relaxed);
        return leaveOut <= 0;
    }

    /// Notes how the try went, and returns it.
    bool result(bool succeeded)
    {
        const int penalty = m_penalty.load(std::memory_order_relaxed);
        m_penalty.store(succeeded ? penalty * 7 / 8 : std::min(2 * penalty + 1, MaxPenalty), std::memory_order_relaxed);
        if (!succeeded)
            m_leaveOut.store(penalty, std::memory_order_relaxed);
        return succeeded;
    }

private:
    // Bounds what is lost where it never pays: with 15, watching in vain on one processor costs 18 % of a request's
    // processor time, with 1023 nothing that can be measured.
    static constexpr int MaxPenalty = 1023;

    std::atomic<int> m_leaveOut{0}; // tries
    std::atomic<int> m_penalty{0};  // what the next failure costs, in tries left out
};

#endif
