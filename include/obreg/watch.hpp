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
// THREADS. One thread at a time uses a Watch; stop() is for any. A Watch has two threads of its own, which sleep nearly
// always: one asks the daemon, for a call of the library returns when the daemon answers and not before; the other has
// the daemon end that question. So next() returns in time and stop() at once also while the daemon is stopped or hangs.
// What the threads and next() share is guarded by one lock, which nobody holds in a call of the library. In the child
// of a fork a Watch can only be asked for its number(), and destroyed, which does nothing to the parent's.
#ifndef OBREG_WATCH_HPP
#define OBREG_WATCH_HPP

#include <chrono>
#include <memory>

#include <obreg/watcher.hpp>

namespace obreg {

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

    /// Waits until there are changes, for as long as that at most. Empty when the time is up and after stop(). With 0
    /// it looks: without a descriptor() by a call of the library, which tells all that has changed by then and takes as
    /// long as the daemon does; with one it gives what there is to give.
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
    /// that stop() was called. Only to be waited for, not to be read. Closed with the Watch, and on exec. -1 when there
    /// is none to be had.
    int descriptor(std::error_code& error) { return usable(error) ? m_pWatcher->descriptor(error) : -1; }
    int descriptor()
    {
        return detail::throwing("watch", [&](std::error_code& error) { return descriptor(error); });
    }

    /// All changes up to this number have been given. To be stored, and given to start().
    UINT64 number() const { return m_pWatcher != nullptr ? m_pWatcher->number() : 0; }

    /// Ends a next() that waits in another thread, and lets all that follow give nothing, at once. Any thread, while
    /// the Watch is there. Needs no memory and no daemon.
    ///
    /// The destructor does the same and waits until the Watch's threads have ended: some milliseconds while the daemon
    /// answers or is not there. One that does not answer (stopped, or hanging) is given a second. The threads are then
    /// left to end by themselves when it answers or is gone; they need nothing of the program but this code and
    /// libobreg, which must not be unloaded meanwhile, and exit() does not wait for them.
    void stop() noexcept
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
                pWatcher->release();
            else // a fork's: its threads are not here, and its locks may be taken for ever
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
