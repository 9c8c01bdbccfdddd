// What must still be found when nobody holds a channel any more: its reader's thread when the library is unloaded, its
// descriptors in a fork child.
//
// Every channel registers itself. An entry outlives its channel until the reader's thread has left this library: a
// detached thread runs its code up to its last instruction, and nothing that it says itself comes later. So the kernel
// says it: the reader holds its entry's robust mutex, never gives it back, and the kernel marks it when the thread is
// gone.
//
// s_mutex guards changes of the list; it is a leaf in the lock order. The pointers are atomics all the same, changed by
// single stores, and an entry is out of the list before it is freed: a fork child, which may have been cut out of the
// middle of a change, walks it without the lock. (The kernel copies descriptors before memory: a socket that another
// thread closes at that moment can stay open in the child. It is a dead one.)
#ifndef OBREG_CLIENT_LIVECHANNELS_H
#define OBREG_CLIENT_LIVECHANNELS_H

#include <atomic>
#include <cerrno>
#include <chrono>
#include <new>
#include <pthread.h>

#include "client/guards.h"
#include "client/patience.h"

class CChannel;

class LiveChannels {
    enum class State : int { NoReader, Starting, Running };

    struct Entry {
        /// Throws std::bad_alloc when the mutex cannot be made.
        explicit Entry(CChannel* pOwner);
        ~Entry() { pthread_mutex_destroy(&reader); }
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

        bool readerLeft();

        std::atomic<CChannel*> pChannel; // null once the channel is destroyed
        std::atomic<Entry*> pNext{nullptr};
        std::atomic<State> state{State::NoReader};
        pthread_mutex_t reader; // held by the reader while it runs
        bool robust = true;     // else the reader gives the mutex back when little is left to do
    };

public:
    /// A reader thread's word about itself; good after its channel is gone.
    class Reader {
    public:
        explicit Reader(Entry& entry) : m_pGivenBack(entry.robust ? nullptr : &entry.reader)
        {
            pthread_mutex_lock(&entry.reader);
            entry.state.store(State::Running);
        }
        /// The last word.
        void ends()
        {
            if (m_pGivenBack != nullptr)
                pthread_mutex_unlock(m_pGivenBack);
        }

    private:
        pthread_mutex_t* const m_pGivenBack;
    };

    /// A channel's own entry, a member of it.
    class Registration {
    public:
        /// Throws std::bad_alloc.
        explicit Registration(CChannel* pChannel) : m_pEntry(add(pChannel)) {}
        ~Registration() { m_pEntry->pChannel.store(nullptr); }
        Registration(const Registration&) = delete;
        Registration& operator=(const Registration&) = delete;

        /// Before the reader thread is made ...
        void readerStarts() { m_pEntry->state.store(State::Starting); }
        /// ... when it could not be made ...
        void readerNotMade() { m_pEntry->state.store(State::NoReader); }
        /// ... and by the reader thread itself, while the channel lives.
        Reader readerRuns() { return Reader(*m_pEntry); }

    private:
        Entry* const m_pEntry;
    };

    /// Unload: waits until the reader threads of all channels have left, or the patience is over. Their connections
    /// must have been shut down.
    static void awaitReaders(std::chrono::milliseconds patience)
    {
        await([] { return removeFinished(); }, patience);
    }

    /// Fork child, which has one thread: calls abandon(CChannel&) for every channel of the parent and forgets them all.
    template <class Abandon>
    static void forgetInForkChild(Abandon abandon)
    {
        pthread_mutex_init(&s_mutex, nullptr);
        for (Entry* pEntry = s_first.exchange(nullptr); pEntry != nullptr; pEntry = pEntry->pNext.load())
            if (CChannel* const pChannel = pEntry->pChannel.load())
                abandon(*pChannel);
    }

private:
    static Entry* add(CChannel* pChannel)
    {
        removeFinished();
        auto* const pEntry = new Entry(pChannel);
        const MutexLock lock(s_mutex);
        pEntry->pNext.store(s_first.load());
        s_first.store(pEntry);
        return pEntry;
    }

    /// Frees the entries that nothing is left of. True when no reader is left.
    static bool removeFinished()
    {
        const MutexLock lock(s_mutex);
        bool allLeft = true;
        std::atomic<Entry*>* pLink = &s_first;
        while (Entry* const pEntry = pLink->load()) {
            const bool left = pEntry->readerLeft();
            allLeft = allLeft && left;
            if (left && pEntry->pChannel.load() == nullptr) {
                pLink->store(pEntry->pNext.load());
                delete pEntry;
            } else {
                pLink = &pEntry->pNext;
            }
        }
        return allLeft;
    }

    static inline pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
    static inline std::atomic<Entry*> s_first{nullptr};
};

/// Where threads have no robust mutexes, as in some emulators, an ordinary one will do: an unload may then meet the
/// reader in its last instructions.
inline LiveChannels::Entry::Entry(CChannel* pOwner) : pChannel(pOwner)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    int error = pthread_mutex_init(&reader, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (error == ENOTSUP) {
        robust = false;
        error = pthread_mutex_init(&reader, nullptr);
    }
    if (error != 0)
        throw std::bad_alloc();
}

/// s_mutex is held.
inline bool LiveChannels::Entry::readerLeft()
{
    if (state.load() != State::Running)
        return state.load() == State::NoReader;
    const int error = pthread_mutex_trylock(&reader);
    if (error != 0 && error != EOWNERDEAD)
        return false;
    if (error == EOWNERDEAD)
        pthread_mutex_consistent(&reader);
    pthread_mutex_unlock(&reader);
    state.store(State::NoReader);
    return true;
}

#endif
