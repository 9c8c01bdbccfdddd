// watch.hpp - told what changes in the registry, when it does. Header-only, C++17 and Linux, on nothing but the ten
// functions of <obreg/obreg.h> and the key HKEY_DYN_DATA\Changes, which obregd has.
//
//     using namespace obreg;
//     Watch watch = Watch::start(Key::open(localMachine(), "Software\\Acme"));
//     for (;;)
//         for (const Change& change : watch.next().changes)
//             std::cout << change.path << ' ' << change.name << '\n';
//
// Nothing is missed and nothing told twice: the daemon numbers the changes, and a Watch asks for those behind the last
// one that it has given. So it goes on where it was after a lost connection and a restart of the daemon; a program that
// stores number() goes on there in its next run. To follow the state of a key: start the Watch, then read, then wait.
//
// ERRORS. As in registry.hpp: one form throws std::system_error, one sets a std::error_code. While the daemon is away,
// next() tries again for five seconds, then the error is Status::requestFailed. Whatever the error, nothing is lost:
// the next call goes on. After the end of the watched key, which is told, it is Status::keyDeleted.
//
// THREADS. One thread at a time uses a Watch; stop() is for any. A Watch has a thread of its own from the moment that
// its descriptor() is asked for. In the child of a fork it can only be asked for its number(), and destroyed, which
// does nothing to the parent's.
#ifndef OBREG_WATCH_HPP
#define OBREG_WATCH_HPP

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <obreg/registry.hpp>

namespace obreg {

enum class ChangeKind { keyMade, keyDeleted, valueSet, valueDeleted };

/// One change.
struct Change {
    UINT64 number = 0;
    ChangeKind kind = ChangeKind::keyMade;
    std::string path; ///< of the key, from the watched one; empty for the watched key itself
    std::string name; ///< of the value, as an enumeration shows it; empty for a key that was made or deleted
};

/// What next() tells.
struct Changes {
    UINT64 number = 0; ///< up to here
    bool lost = false; ///< some are no longer known: what is watched is to be read anew
    std::vector<Change> changes;

    bool empty() const { return !lost && changes.empty(); }
};

namespace detail {

/// Takes a text up to a tab, and the tab, off the front of another one.
inline std::string takeField(std::string& text)
{
    const size_t end = std::min(text.find('\t'), text.size());
    std::string field = text.substr(0, end);
    text.erase(0, std::min(end + 1, text.size()));
    return field;
}

/// Reads what Changes answers.
inline Changes parseChanges(std::string data)
{
    static constexpr const char* kinds[] = {"key-made", "key-deleted", "value-set", "value-deleted"};
    Changes told;
    bool first = true;
    StringList lines = ValueOf<StringList>::decode({REG_MULTI_SZ, std::move(data)}).value();
    for (std::string& line : lines) {
        char* pRest = nullptr;
        const UINT64 number = std::strtoull(line.c_str(), &pRest, 10);
        if (first) {
            told.number = number;
            told.lost = std::strcmp(pRest, " lost") == 0;
        }
        if (std::exchange(first, false))
            continue;
        takeField(line);
        const auto* const pKind = std::find(std::begin(kinds), std::end(kinds), takeField(line));
        if (pKind == std::end(kinds))
            continue; // nothing that this version knows
        std::string path = takeField(line);
        told.changes.push_back({number, static_cast<ChangeKind>(pKind - kinds), std::move(path), std::move(line)});
    }
    return told;
}

inline std::string hexadecimal(UINT64 number)
{
    std::string digits;
    for (; number != 0; number >>= 4)
        digits.insert(digits.begin(), "0123456789abcdef"[number & 15]);
    return digits;
}

/// What a Watch has. The process that made it destroys it; that of a fork leaves it as it is.
class Watcher {
public:
    using Milliseconds = std::chrono::milliseconds;

    Watcher(Key key, Key changes, const char* pScope)
        : m_key(std::move(key)), m_changes(std::move(changes)), m_scope(pScope)
    {
        std::random_device random;
        m_id = hexadecimal((UINT64{random()} << 32 | random()) | 1);
    }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    ~Watcher()
    {
        stop();
        if (m_thread.joinable())
            m_thread.join();
        closeDescriptor();
    }

    bool isOurs() const { return m_process == getpid(); }
    UINT64 number() const { return m_number; }

    /// Begins behind that number, or now.
    void begin(std::optional<UINT64> since, std::error_code& error)
    {
        m_number = since ? *since : ask("now", Milliseconds(0), error).number;
    }

    Changes next(Milliseconds limit, std::error_code& error)
    {
        Told told;
        if (m_thread.joinable())
            take(limit, told);
        else
            told = wait(m_number, limit);
        error = told.error;
        if (error)
            return {m_number, false, {}};
        m_number = told.changes.number;
        return std::move(told.changes);
    }

    int descriptor(std::error_code& error)
    {
        error.clear();
        if (m_thread.joinable())
            return m_descriptor;
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before); // signals are the program's, not this thread's
        try {
            openDescriptor();
            m_thread = std::thread([this] { serve(); });
        } catch (const std::system_error& failure) {
            error = failure.code();
        } catch (const std::bad_alloc&) {
            error = std::make_error_code(std::errc::not_enough_memory);
        }
        if (error) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            closeDescriptor();
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return m_descriptor;
    }

    /// Any thread.
    void stop()
    {
        const std::string end = "end " + m_id;
        std::unique_lock<std::mutex> lock(m_mutex);
        m_stopping = true;
        signal();
        m_wake.notify_all();
        // The daemon ends what it has; for a request that it gets a moment later there is another try.
        for (Milliseconds pause(5); m_asking; pause = std::min(2 * pause, Milliseconds(100))) {
            lock.unlock();
            char answer[32];
            UINT32 length = sizeof(answer);
            OBRegQueryValueExA(m_changes.handle(), end.c_str(), nullptr, nullptr, answer, &length);
            lock.lock();
            m_wake.wait_for(lock, pause, [this] { return !m_asking; });
        }
    }

    void closeDescriptor()
    {
        if (m_descriptor != -1)
            close(std::exchange(m_descriptor, -1));
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Told {
        Changes changes;
        std::error_code error;
    };

    static constexpr Milliseconds LongestWait = std::chrono::minutes(9); // the daemon's own limit is ten
    static constexpr Milliseconds Patience{5000};                        // a daemon is restarted in less
    static constexpr Milliseconds Pause{20};                             // between two tries
    static constexpr Milliseconds PauseAfterError{1000};

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
        m_asking = !m_stopping;
        return m_asking;
    }

    void endAsking()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_asking = false;
        m_wake.notify_all();
    }

    /// Until stop() at the longest.
    void sleep(Milliseconds time)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait_for(lock, time, [this] { return m_stopping; });
    }

    /// The thread's: keeps one answer ready, and asks for the next one when that has been taken.
    void serve()
    {
        UINT64 since = m_number;
        for (;;) {
            Told told = wait(since, LongestWait);
            if (!told.error && told.changes.empty() && !isStopping())
                continue;
            since = told.error ? since : told.changes.number;
            const bool failed = static_cast<bool>(told.error);
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_ready = std::move(told);
                signal();
                m_wake.notify_all();
                m_wake.wait(lock, [this] { return !m_ready || m_stopping; });
                if (m_stopping)
                    return;
            }
            if (failed)
                sleep(PauseAfterError);
        }
    }

    bool isStopping()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_stopping;
    }

    void take(Milliseconds limit, Told& told)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const Clock::time_point begun = Clock::now();
        const auto left = [&] { return limit - std::chrono::duration_cast<Milliseconds>(Clock::now() - begun); };
        while (!m_ready && !m_stopping && left().count() > 0)
            m_wake.wait_for(lock, std::min(left(), LongestWait));
        told.changes.number = m_number;
        if (!m_ready || m_stopping)
            return;
        told = std::move(*m_ready);
        m_ready.reset();
        UINT64 count = 0;
        [[maybe_unused]] const ssize_t taken = read(m_descriptor, &count, sizeof(count));
        m_wake.notify_all();
    }

    /// Makes the descriptor readable.
    void signal() const
    {
        const UINT64 one = 1;
        if (m_descriptor != -1) [[maybe_unused]]
            const ssize_t written = write(m_descriptor, &one, sizeof(one));
    }

    void openDescriptor()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (m_descriptor >= 0 && m_descriptor < 3) { // standard input and the like may be closed
            const int low = m_descriptor;
            m_descriptor = fcntl(low, F_DUPFD_CLOEXEC, 3);
            close(low);
        }
        if (m_descriptor == -1)
            throw std::system_error(errno, std::generic_category());
        if (m_stopping)
            signal();
    }

    const pid_t m_process = getpid();
    const Key m_key;
    const Key m_changes;
    const char* const m_scope;
    std::string m_id;    // by which the daemon ends the questions
    UINT64 m_number = 0; // given up to here; who uses the Watch
    std::thread m_thread;

    std::mutex m_mutex; // guards what follows
    std::condition_variable m_wake;
    int m_descriptor = -1;
    bool m_asking = false; // a question may be in the daemon
    bool m_stopping = false;
    std::optional<Told> m_ready; // by the thread, to be taken
};

} // namespace detail

/// Watches a key; move-only. Empty after a failed non-throwing start and when moved from: then only start one anew.
class Watch {
public:
    enum class Scope {
        key, ///< the key's values, and which sub-keys it has
        tree ///< all below it as well
    };

    /// As a limit: none.
    static constexpr std::chrono::milliseconds forever = std::chrono::milliseconds::max();

    Watch() = default;

    /// Watches a key from now on, or from behind the change of a number that another Watch has told. The key itself may
    /// be closed after that. Status::notFound when the daemon does not tell changes; Status::badHandle for a key whose
    /// changes it does not tell, such as those of its figures.
    static Watch start(const Key& key, Scope scope, std::optional<UINT64> since, std::error_code& error)
    {
        Watch watch;
        Key own = Key::open(key, "", KEY_NOTIFY, error);
        if (error)
            return watch;
        Key changes = Key::open(Key::root(HKEY_DYN_DATA), "Changes", KEY_READ, error);
        if (error)
            return watch;
        const char* const pScope = scope == Scope::tree ? "tree" : "key";
        watch.m_pWatcher.reset(new detail::Watcher(std::move(own), std::move(changes), pScope));
        watch.m_pWatcher->begin(since, error);
        if (error)
            watch.m_pWatcher.reset();
        return watch;
    }
    static Watch start(const Key& key, Scope scope = Scope::tree, std::optional<UINT64> since = std::nullopt)
    {
        return detail::throwing("watch", [&](std::error_code& error) { return start(key, scope, since, error); });
    }

    /// Waits until there are changes, for as long as that at most: 0 is a look. Empty when the time is up and after
    /// stop(). A connection that is lost meanwhile can make it take twice as long.
    Changes next(std::chrono::milliseconds limit, std::error_code& error)
    {
        if (usable(error))
            return m_pWatcher->next(limit, error);
        return {};
    }
    Changes next(std::chrono::milliseconds limit = forever)
    {
        return detail::throwing("watch", [&](std::error_code& error) { return next(limit, error); });
    }

    /// For poll, epoll and event loops: readable when next() has something to give without waiting, be it an error or
    /// that stop() was called. Only to be waited for, not to be read. Closed with the Watch, and on exec. Starts the
    /// Watch's thread; -1 when that fails.
    int descriptor(std::error_code& error) { return usable(error) ? m_pWatcher->descriptor(error) : -1; }
    int descriptor()
    {
        return detail::throwing("watch", [&](std::error_code& error) { return descriptor(error); });
    }

    /// All changes up to this number have been given. To be stored, and given to start().
    UINT64 number() const { return m_pWatcher != nullptr ? m_pWatcher->number() : 0; }

    /// Ends a next() that waits in another thread, and lets all that follow give nothing, at once. Any thread, while
    /// the Watch is there. The destructor does the same and joins the Watch's thread.
    void stop()
    {
        if (m_pWatcher != nullptr && m_pWatcher->isOurs())
            m_pWatcher->stop();
    }

    explicit operator bool() const { return m_pWatcher != nullptr; }

private:
    struct Release {
        void operator()(detail::Watcher* pWatcher) const
        {
            if (pWatcher->isOurs())
                delete pWatcher;
            else // a fork's: its thread is not here, and its locks may be taken for ever
                pWatcher->closeDescriptor();
        }
    };

    bool usable(std::error_code& error) const
    {
        error.clear();
        if (m_pWatcher == nullptr || !m_pWatcher->isOurs())
            error = Status::invalidParameter;
        return !error;
    }

    std::unique_ptr<detail::Watcher, Release> m_pWatcher;
};

} // namespace obreg

#endif
