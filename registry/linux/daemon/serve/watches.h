// The queries of changes that wait until there is something to tell.
//
// One that waits is a record here and nothing else: no thread, no timer of its own. It is found by the number of the
// key that it watches, so a change looks only at the keys above it; what it wakes is told in small portions by the
// server, which asks the journal what there is to tell. A watch that is woken for nothing waits on.
//
// Belongs to the server and its thread.
#ifndef OBREG_DAEMON_SERVE_WATCHES_H
#define OBREG_DAEMON_SERVE_WATCHES_H

#include <chrono>
#include <list>
#include <map>
#include <unordered_map>
#include <vector>

#include "daemon/serve/job.h"

namespace obregd {

struct User;

class Watches {
public:
    using Clock = std::chrono::steady_clock;

    /// A waiting request.
    struct Watch {
        JobPtr pJob;
        Wait wait;
        Clock::time_point until;
    };

    bool empty() const { return m_byTime.empty(); }
    size_t size() const { return m_byTime.size(); }

    void add(JobPtr pJob, const Wait& wait, Clock::time_point now);
    /// It waits on, as long as it would have.
    void addAgain(Watch&& watch);

    /// Wakes those whom changes concern that have been committed. They are in the order of their numbers, and the store
    /// has all of them.
    void touched(const std::vector<Touched>& changes, Store& store);
    /// Wakes those whose time is up; when the next one's is.
    std::optional<Clock::time_point> timeIsUp(Clock::time_point now);
    /// Wakes all, or all who watch a key.
    void wakeAll();
    void wakeAll(KeyId key) { wake(key, false, INT64_MAX); }

    /// Wakes a user's with that id: their time is up. Returns how many they are.
    size_t end(const User& user, uint64_t id);

    /// One that is awake; it is the caller's now. There is one.
    Watch takeAwake();
    bool isAnyAwake() const { return !m_awake.empty(); }

    /// Takes out what waits for a connection, or is awake for it.
    std::list<Watch> takeOf(const Connection& connection);

private:
    struct Entry;
    using Entries = std::list<Entry>;
    using ByTime = std::multimap<Clock::time_point, Entries::iterator>;
    using ById = std::multimap<std::pair<const User*, uint64_t>, Entries::iterator>;
    struct Entry {
        Watch watch;
        ByTime::iterator time;
        ById::iterator id; // none: the end
    };

    void insert(Watch&& watch);
    void wake(KeyId key, bool above, int64_t number);
    void wake(Entries::iterator entry);
    void erase(Entries& entries, Entries::iterator entry);
    void erase(Entries::iterator entry);

    std::unordered_map<KeyId, Entries> m_waiting; // by what they watch
    ByTime m_byTime;                              // the same
    ById m_byId;                                  // those of them that have one
    std::list<Watch> m_awake;
};

} // namespace obregd

#endif
