// What submitters sleep on: condition variables that outlive the requests which borrow them.
//
// The reader wakes a submitter when it has given up every lock; woken sooner, the submitter would run into one and
// sleep again. By then the submitter may have seen its outcome after a spurious wake-up and be gone, request and all.
// So the condition variable is not the request's own. A signal that comes late finds the next borrower, who looks and
// sleeps on, or nobody; and none is ever destroyed.
//
// There are as many as are ever lent at a time, MaxLent at the most: who comes then waits for another's return. Any
// thread, without a lock: the borrowed ones are bits of a few atomics. Zeros are a valid beginning, so a static one is
// there before any constructor runs.
#ifndef OBREG_CLIENT_CONDITIONS_H
#define OBREG_CLIENT_CONDITIONS_H

#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <ctime>
#include <pthread.h>

class Conditions {
public:
    static constexpr size_t MaxLent = 1024;

    /// Lends one to a thread that will wait on it alone. Null when it cannot be initialised.
    pthread_cond_t* borrow()
    {
        const size_t number = claim();
        Slot& slot = m_slots[number];
        if (!slot.initialised && pthread_cond_init(&slot.condition, nullptr) != 0) {
            giveBack(&slot.condition);
            return nullptr;
        }
        slot.initialised = true;
        return &slot.condition;
    }

    /// Takes it back: nobody waits on it any more, but it may still be signalled.
    void giveBack(pthread_cond_t* pCondition)
    {
        const auto number = static_cast<size_t>(reinterpret_cast<Slot*>(pCondition) - m_slots.data());
        m_lent[number / WordBits].fetch_and(~(Word{1} << (number % WordBits)), std::memory_order_release);
    }

    /// In a fork child, or when nobody borrows and nobody signals: all are there again and will be initialised anew. A
    /// thread of the parent may have been in the middle of a signal.
    void renew()
    {
        for (Slot& slot : m_slots)
            if (slot.initialised) // most were never used, and their memory never touched
                slot.initialised = false;
        for (std::atomic<Word>& lent : m_lent)
            lent.store(0, std::memory_order_relaxed);
    }

private:
    using Word = unsigned long;
    static constexpr size_t WordBits = sizeof(Word) * CHAR_BIT;

    struct alignas(64) Slot { // a cache line each
        pthread_cond_t condition;
        bool initialised;
    };

    /// The number of one that is the caller's from now on.
    size_t claim()
    {
        for (;;) {
            for (size_t i = 0; i < m_lent.size(); ++i)
                for (Word lent = m_lent[i].load(std::memory_order_relaxed); lent != ~Word{0};) {
                    const Word free = ~lent & (lent + 1); // the lowest
                    if (m_lent[i].compare_exchange_weak(lent, lent | free, std::memory_order_acquire))
                        return i * WordBits + static_cast<size_t>(__builtin_ctzl(free));
                }
            const timespec oneMillisecond = {0, 1000000};
            nanosleep(&oneMillisecond, nullptr);
        }
    }

    std::array<std::atomic<Word>, MaxLent / WordBits> m_lent;
    std::array<Slot, MaxLent> m_slots;
};

#endif
