// What submitters sleep on: condition variables that outlive the requests which borrow them.
//
// The reader wakes a submitter whose reply has come when it has given up every lock; woken sooner, the submitter would
// run into one and sleep again. By then the submitter may have seen its outcome after a spurious wake-up and be gone,
// request and all. So the condition variable is not the request's own. A signal that comes late finds the next
// borrower, who looks and sleeps on, or nobody; and none is ever destroyed.
//
// There are MaxLent; while all of them are lent, a request makes its own (clientreq.h). Any thread, without a lock:
// the borrowed ones are bits of a few atomics. Zeros are a valid beginning, so a static one is there before any
// constructor runs.
#ifndef OBREG_CLIENT_CONDITIONS_H
#define OBREG_CLIENT_CONDITIONS_H

#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <pthread.h>

/// A condition variable that is initialised when it is first used. In a cache line of its own.
struct alignas(64) Condition {
    /// False when it cannot be.
    bool initialise()
    {
        initialised = initialised || pthread_cond_init(&variable, nullptr) == 0;
        return initialised;
    }

    pthread_cond_t variable;
    bool initialised;
};

class Conditions {
public:
    static constexpr size_t MaxLent = 256;

    /// Lends one to a thread that will wait on it alone. Null when all are lent.
    Condition* borrow()
    {
        for (size_t i = 0; i < m_lent.size(); ++i)
            for (Word lent = m_lent[i].load(std::memory_order_relaxed); lent != ~Word{0};) {
                const Word lowest = ~lent & (lent + 1);
                if (m_lent[i].compare_exchange_weak(lent, lent | lowest, std::memory_order_acquire))
                    return &m_conditions[i * WordBits + static_cast<size_t>(__builtin_ctzl(lowest))];
            }
        return nullptr;
    }

    /// Takes it back: nobody waits on it any more, but it may still be signalled.
    void giveBack(const Condition* pCondition)
    {
        const auto number = static_cast<size_t>(pCondition - m_conditions.data());
        m_lent[number / WordBits].fetch_and(~(Word{1} << (number % WordBits)), std::memory_order_release);
    }

    /// In a fork child, or when nobody borrows and nobody signals: all are there again and will be initialised anew. A
    /// thread of the parent may have been in the middle of a signal.
    void renew()
    {
        for (Condition& condition : m_conditions)
            if (condition.initialised) // most were never used: not written to, they take no memory
                condition.initialised = false;
        for (std::atomic<Word>& lent : m_lent)
            lent.store(0, std::memory_order_relaxed);
    }

private:
    using Word = unsigned long;
    static constexpr size_t WordBits = sizeof(Word) * CHAR_BIT;

    std::array<std::atomic<Word>, MaxLent / WordBits> m_lent;
    std::array<Condition, MaxLent> m_conditions;
};

#endif
