// What must still be found when nobody holds a channel any more: its reader's kernel thread when the library is
// unloaded, its descriptors in a fork child.
//
// Every channel registers itself. An entry outlives its channel until the reader's thread is gone from the kernel: a
// detached thread runs code of this library up to its last instruction, and no earlier sign of its end exists.
//
// s_mutex guards changes of the list; it is a leaf in the lock order. The list is changed by single stores, and an
// entry is out of it before it is freed: so a fork child, which may have been cut out of the middle of a change, can
// walk it without the lock. (The kernel copies descriptors before memory: a socket that another thread closes at that
// moment can stay open in the child. It is a dead one.)
#ifndef OBREG_CLIENT_LIVECHANNELS_H
#define OBREG_CLIENT_LIVECHANNELS_H

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "client/guards.h"

class CChannel;

class LiveChannels {
    struct Entry {
        explicit Entry(CChannel* pOwner) : pChannel(pOwner) {}

        std::atomic<CChannel*> pChannel; // null once the channel is destroyed
        std::atomic<pid_t> reader{NoReader};
        std::atomic<Entry*> pNext{nullptr};
    };

public:
    /// A reader thread's word about itself; good after its channel is gone.
    class Reader {
    public:
        explicit Reader(Entry* pEntry) : m_pEntry(pEntry), m_thread(static_cast<pid_t>(syscall(SYS_gettid)))
        {
            m_pEntry->reader.store(m_thread);
        }
        /// The last word: little is left to do.
        void ends() { m_pEntry->reader.store(-m_thread); }

    private:
        Entry* const m_pEntry;
        const pid_t m_thread;
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
        void readerStarts() { m_pEntry->reader.store(Starting); }
        /// ... when it could not be made ...
        void readerNotMade() { m_pEntry->reader.store(NoReader); }
        /// ... and by the reader thread itself, while the channel lives.
        Reader readerRuns() { return Reader(m_pEntry); }

    private:
        Entry* const m_pEntry;
    };

    /// Unload: waits until the reader threads of all channels are gone, `milliseconds` at the most, and much less when
    /// only those are left that were about to end: the number of such a one may be another thread's by now. Their
    /// connections must have been shut down.
    static void awaitReaders(int milliseconds)
    {
        int patience = PatienceWithEnding;
        for (Left left; (left = removeFinished()) != Left::None && milliseconds > 0; --milliseconds) {
            if (left == Left::OnlyEnding && patience-- == 0)
                return;
            const timespec oneMillisecond = {0, 1000000};
            nanosleep(&oneMillisecond, nullptr);
        }
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
    static constexpr pid_t NoReader = 0;
    static constexpr pid_t Starting = -1; // never the negative of a reader's number: 1 is a process's first thread
    static constexpr int PatienceWithEnding = 100;

    enum class Left { None, OnlyEnding, Running };

    static Entry* add(CChannel* pChannel)
    {
        removeFinished();
        auto* const pEntry = new Entry(pChannel);
        const MutexLock lock(s_mutex);
        pEntry->pNext.store(s_first.load());
        s_first.store(pEntry);
        return pEntry;
    }

    /// Frees the entries that nothing is left of. Returns what readers there still are.
    static Left removeFinished()
    {
        const MutexLock lock(s_mutex);
        Left left = Left::None;
        std::atomic<Entry*>* pLink = &s_first;
        while (Entry* const pEntry = pLink->load()) {
            if (const Left its = readerOf(*pEntry); its != Left::None) {
                left = std::max(left, its);
            } else if (pEntry->pChannel.load() == nullptr) {
                pLink->store(pEntry->pNext.load());
                delete pEntry;
                continue;
            }
            pLink = &pEntry->pNext;
        }
        return left;
    }

    static Left readerOf(const Entry& entry)
    {
        const pid_t reader = entry.reader.load();
        if (reader == NoReader || reader == Starting)
            return reader == Starting ? Left::Running : Left::None;
        if (syscall(SYS_tgkill, getpid(), std::abs(reader), 0) != 0 && errno == ESRCH) {
            entry.reader.load(); // its last word may have come meanwhile: all it did is done before the entry is freed
            return Left::None;
        }
        return reader > 0 ? Left::Running : Left::OnlyEnding;
    }

    static inline pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
    static inline std::atomic<Entry*> s_first{nullptr};
};

#endif
