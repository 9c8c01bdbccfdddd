// The two scope guards of the library.
#ifndef OBREG_CLIENT_GUARDS_H
#define OBREG_CLIENT_GUARDS_H

#include <pthread.h>

#include "common/worthtrying.h"

/// Holds a POSIX mutex from construction to destruction, or to an earlier unlock().
class MutexLock {
public:
    explicit MutexLock(pthread_mutex_t& mutex) : m_pMutex(&mutex) { pthread_mutex_lock(m_pMutex); }

    /// Tries for a moment before it sleeps, while that is worth it: for a mutex that is held shortly but by many.
    MutexLock(pthread_mutex_t& mutex, WorthTrying& worthSpinning) : m_pMutex(&mutex)
    {
        if (pthread_mutex_trylock(m_pMutex) != 0 && !(worthSpinning.now() && worthSpinning.result(spin())))
            pthread_mutex_lock(m_pMutex);
    }
    ~MutexLock() { unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock()
    {
        if (m_pMutex != nullptr)
            pthread_mutex_unlock(m_pMutex);
        m_pMutex = nullptr;
    }

private:
    bool spin() const
    {
        for (int i = 0; i < Spins; ++i) {
            for (int pause = 0; pause < PausesPerSpin; ++pause)
                cpuPause();
            if (pthread_mutex_trylock(m_pMutex) == 0)
                return true;
        }
        return false;
    }

    static constexpr int Spins = 20;
    static constexpr int PausesPerSpin = 10;

    pthread_mutex_t* m_pMutex;
};

/// Keeps the calling thread from being cancelled. An exchange passes many cancellation points (sendmsg, connect,
/// nanosleep, syslog) while it holds locks and has its pending request in the channel's map; unwinding from one of them
/// would leave both behind, or end in a catch-all and abort the process.
class NoCancellation {
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_oldState); }
    ~NoCancellation() { pthread_setcancelstate(m_oldState, nullptr); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

private:
    int m_oldState = PTHREAD_CANCEL_ENABLE;
};

#endif
