// watcher.hpp - what a Watch has: its questions, its two threads, and how these end. Comes with watch.hpp, which is for
// programs and says what may be relied on; this is not.
//
// The asker asks the daemon, the ender has a question ended and closes the keys. m_mutex guards what they share with
// the thread that uses the Watch; nobody holds it in a call of the library. release() waits a second for both and
// leaves them alone after that: the last one then deletes the Watcher.
#ifndef OBREG_WATCHER_HPP
#define OBREG_WATCHER_HPP

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <random>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

#include <obreg/changes.hpp>

namespace obreg::detail {

/// What a Watch has. The process that made it releases it; that of a fork leaves it as it is. Released, it is gone when
/// its threads are.
class Watcher {
public:
    using Milliseconds = std::chrono::milliseconds;

    Watcher(Key key, Key changes, const char* pScope)
        : m_key(std::move(key)), m_changes(std::move(changes)), m_scope(pScope)
    {
        std::random_device random;
        m_id = hexadecimal((UINT64{random()} << 32 | random()) | 1);
        m_end = "end " + m_id;
    }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    /// Stops it and waits for its threads, a second at most: those that a daemon keeps waiting are left to end later.
    void release() noexcept
    {
        stop();
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            closeDescriptor();
            if (!m_wake.wait_for(lock, Grace, [this] { return m_running == 0; })) {
                m_left = true;
                eachThread([](std::thread& thread) { thread.detach(); });
                return;
            }
        }
        eachThread([](std::thread& thread) { thread.join(); });
        delete this;
    }

    bool isOurs() const { return m_process == getpid(); }
    UINT64 number() const { return m_number; }

    /// Begins behind that number, or now.
    void begin(std::optional<UINT64> since, std::error_code& error)
    {
        m_number = since ? *since : ask("now", Milliseconds(0), error).number;
        m_asked = m_number;
        if (error)
            return;
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before); // signals are the program's, not these threads'
        try {
            run(m_asker, &Watcher::serve);
            run(m_ender, &Watcher::endQuestions);
        } catch (const std::system_error& failure) {
            error = failure.code();
        } catch (const std::bad_alloc&) {
            error = std::make_error_code(std::errc::not_enough_memory);
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    Changes next(Milliseconds limit, std::error_code& error)
    {
        Told told{{m_number, false, {}}, {}};
        if (!take(limit, told) && limit.count() <= 0 && m_descriptor == -1) {
            told = wait(m_number, limit);
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_number = told.error ? m_number : told.changes.number;
        }
        error = told.error;
        return error ? Changes{m_number, false, {}} : std::move(told.changes);
    }

    int descriptor(std::error_code& error)
    {
        error.clear();
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_descriptor == -1)
            openDescriptor(error);
        m_wake.notify_all();
        return m_descriptor;
    }

    /// Any thread.
    void stop() noexcept
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        signal();
        m_wake.notify_all();
    }

    void closeDescriptor()
    {
        if (m_descriptor != -1)
            close(std::exchange(m_descriptor, -1));
    }

private:
    ~Watcher() = default;

    using Clock = std::chrono::steady_clock;
    struct Told {
        Changes changes;
        std::error_code error;
    };

    static constexpr Milliseconds LongestWait = std::chrono::minutes(9); // the daemon's own limit is ten
    static constexpr Milliseconds Patience{5000};                        // a daemon is restarted in less
    static constexpr Milliseconds Pause{20};                             // between two tries
    static constexpr Milliseconds PauseAfterError{1000};
    static constexpr Milliseconds Grace{1000}; // for a daemon that runs, to end what is asked

    /// One question. The answer comes at once when there are changes, else when the time is up.
    Changes ask(const std::string& since, Milliseconds time, std::error_code& error)
    {
        const std::string name = hexadecimal(reinterpret_cast<uintptr_t>(m_key.handle())) + ' ' + since + ' ' +
                                 std::to_string(time.count()) + ' ' + m_scope + ' ' + m_id;
        std::string data(size_t{1024}, '\0');
        auto length = static_cast<UINT32>(data.size());
        for (;;) {
            const REGSTATUS status =
                OBRegQueryValueExA(m_changes.handle(), name.c_str(), nullptr, nullptr, data.data(), &length);
            data.resize(length);
            if (status == OBREG_STATUS_BUFFER_TOO_SMALL) // again, and more may have come meanwhile
                continue;
            error = errorCode(status);
            return error ? Changes() : parseChanges(std::move(data));
        }
    }

    /// Asks until there is something to tell, the time is up or stop() is called.
    Told wait(UINT64 since, Milliseconds limit)
    {
        const Clock::time_point begun = Clock::now();
        const auto spent = [](Clock::time_point from) {
            return std::chrono::duration_cast<Milliseconds>(Clock::now() - from);
        };
        bool away = false; // the daemon, since a time
        Clock::time_point awaySince = begun;
        Told told{{since, false, {}}, {}};
        for (;;) {
            if (!beginAsking())
                return {{since, false, {}}, {}};
            const Milliseconds left = std::max(limit - spent(begun), Milliseconds(0));
            try {
                told.changes = ask(std::to_string(since), std::min(left, LongestWait), told.error);
            } catch (const std::bad_alloc&) {
                told.error = std::make_error_code(std::errc::not_enough_memory);
            }
            endAsking();
            if (told.error != Status::requestFailed) {
                if (told.error || !told.changes.empty() || spent(begun) >= limit)
                    return told;
                since = told.changes.number;
                away = false;
                continue;
            }
            if (!std::exchange(away, true))
                awaySince = Clock::now();
            if (spent(begun) >= limit || spent(awaySince) >= Patience)
                return told;
            sleep(std::min(left, Pause));
        }
    }

    bool beginAsking()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_asking += m_stopping ? 0 : 1;
        return !m_stopping;
    }

    void endAsking()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_asking;
        m_wake.notify_all();
    }

    /// Until stop() at the longest.
    void sleep(Milliseconds time)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait_for(lock, time, [this] { return m_stopping; });
    }

    void run(std::thread& thread, void (Watcher::*work)())
    {
        countRunning(1);
        try {
            thread = std::thread([this, work] {
                (this->*work)();
                if (countRunning(-1))
                    delete this;
            });
        } catch (...) {
            countRunning(-1);
            throw;
        }
    }

    template <class Action>
    void eachThread(Action action)
    {
        for (std::thread* const pThread : {&m_asker, &m_ender})
            if (pThread->joinable()) // if it could be started
                action(*pThread);
    }

    /// Whether this was the last thread of a Watcher that is left to its threads.
    bool countRunning(int more)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_running += more;
        m_wake.notify_all();
        return m_left && m_running == 0;
    }

    /// The asker's: with a descriptor, keeps one answer ready, and asks for the next one when that has been taken; else
    /// asks while next() waits.
    void serve()
    {
        for (;;) {
            UINT64 since = 0;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_wake.wait(lock, [this] { return m_stopping || (!m_ready && isWanted()); });
                if (m_stopping)
                    return;
                since = std::max(m_asked, m_number);
            }
            Told told = wait(since, LongestWait);
            std::unique_lock<std::mutex> lock(m_mutex);
            const bool failed = static_cast<bool>(told.error);
            if (!failed)
                m_asked = told.changes.number;
            if (failed ? isWanted() : !told.changes.empty()) {
                m_ready = std::move(told);
                signal();
                m_wake.notify_all();
            }
            if (failed && m_descriptor != -1)
                m_wake.wait_for(lock, PauseAfterError, [this] { return m_stopping; });
        }
    }

    bool isWanted() const { return m_waiting || m_descriptor != -1; }

    /// The ender's: the daemon ends what it has; for a question that it gets a moment later there is another try. Then
    /// the keys are closed, here, since that is a call as well.
    void endQuestions()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, [this] { return m_stopping; });
        for (Milliseconds pause(5); m_asking != 0; pause = std::min(2 * pause, Milliseconds(100))) {
            lock.unlock();
            try {
                char answer[32];
                UINT32 length = sizeof(answer);
                OBRegQueryValueExA(m_changes.handle(), m_end.c_str(), nullptr, nullptr, answer, &length);
            } catch (const std::bad_alloc&) { // there may be some when the pause is over
            }
            lock.lock();
            m_wake.wait_for(lock, pause, [this] { return m_asking == 0; });
        }
        lock.unlock();
        m_key = Key();
        m_changes = Key();
    }

    /// Gives what the asker has ready, waiting for it. False when there is nothing.
    bool take(Milliseconds limit, Told& told)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const Clock::time_point begun = Clock::now();
        const auto left = [&] { return limit - std::chrono::duration_cast<Milliseconds>(Clock::now() - begun); };
        m_waiting = limit.count() > 0;
        m_wake.notify_all();
        for (;;) {
            dropTold();
            if (m_ready || m_stopping || left().count() <= 0)
                break;
            m_wake.wait_for(lock, std::min(left(), LongestWait));
        }
        m_waiting = false;
        if (m_stopping)
            return true;
        if (!m_ready) {
            told.changes.number = m_number = std::max(m_number, m_asked);
            return false;
        }
        told = std::move(*m_ready);
        m_number = told.error ? m_number : told.changes.number;
        emptyReady();
        return true;
    }

    /// Of what is ready, drops what a look has given meanwhile.
    void dropTold()
    {
        if (!m_ready || m_ready->error || m_ready->changes.lost)
            return;
        std::vector<Change>& changes = m_ready->changes.changes;
        const auto isNew = [this](const Change& change) { return change.number > m_number; };
        changes.erase(changes.begin(), std::find_if(changes.begin(), changes.end(), isNew));
        if (changes.empty())
            emptyReady();
    }

    void emptyReady()
    {
        m_ready.reset();
        UINT64 count = 0;
        [[maybe_unused]] const ssize_t taken = m_descriptor != -1 ? read(m_descriptor, &count, sizeof(count)) : 0;
        m_wake.notify_all();
    }

    /// Makes the descriptor readable.
    void signal() const
    {
        const UINT64 one = 1;
        if (m_descriptor != -1) [[maybe_unused]]
            const ssize_t written = write(m_descriptor, &one, sizeof(one));
    }

    void openDescriptor(std::error_code& error)
    {
        m_descriptor = eventfd(m_stopping || m_ready ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (m_descriptor >= 0 && m_descriptor < 3) { // standard input and the like may be closed
            const int low = m_descriptor;
            m_descriptor = fcntl(low, F_DUPFD_CLOEXEC, 3);
            close(low);
        }
        if (m_descriptor == -1)
            error = std::error_code(errno, std::generic_category());
    }

    const pid_t m_process = getpid();
    Key m_key; // both until the ender closes them
    Key m_changes;
    const char* const m_scope;
    std::string m_id; // by which the daemon ends the questions
    std::string m_end;
    std::thread m_asker;
    std::thread m_ender;

    std::mutex m_mutex; // guards what follows; m_number and m_descriptor are written by who uses the Watch alone
    std::condition_variable m_wake;
    UINT64 m_number = 0; // given up to here
    UINT64 m_asked = 0;  // the asker has asked up to here, and what it got is given or ready
    int m_descriptor = -1;
    int m_running = 0;      // of its threads
    int m_asking = 0;       // questions that may be in the daemon
    bool m_waiting = false; // in next()
    bool m_stopping = false;
    bool m_left = false; // to its threads, of which the last deletes it
    std::optional<Told> m_ready;
};

} // namespace obreg::detail

#endif
