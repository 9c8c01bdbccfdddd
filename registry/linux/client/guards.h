// The scope guards of the library: of a lock, a descriptor, and a thread that must not be cancelled.
#ifndef OBREG_CLIENT_GUARDS_H
#define OBREG_CLIENT_GUARDS_H

#include <cerrno>
#include <mutex>
#include <pthread.h>
#include <unistd.h>
#include <utility>

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
    /// Takes over a mutex that the caller has locked.
    MutexLock(pthread_mutex_t& mutex, std::adopt_lock_t /*locked*/) : m_pMutex(&mutex) {}

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

    // Without them, sixteen threads on two free processors get 0.90 of the throughput; where client or daemon have one
    // each, it is the same. From 50 to 2,000 pauses in all there is no difference.
    static constexpr int Spins = 20;
    static constexpr int PausesPerSpin = 10;

    pthread_mutex_t* m_pMutex;
};

/// Owns a descriptor, or none. The number is out of the object before it is given back: a fork in between finds none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(); }

    explicit operator bool() const { return m_fd != -1; }
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

    /// Leaves errno as it is.
    void reset(int fd = -1)
    {
        const int old = std::exchange(m_fd, fd);
        const int error = errno;
        if (old != -1)
            close(old);
        errno = error;
    }

private:
    int m_fd = -1;
};

/// Keeps the calling thread from being cancelled; for everything that is called from outside. An exchange passes many
/// cancellation points (sendmsg, connect, nanosleep, syslog) while it holds locks and has its pending request in the
/// channel's map; unwinding from one of them would leave both behind, or end in a catch-all and abort the process.
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
