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
    using Clock = JobClock;

    /// A waiting request; until when the job tells.
    struct Watch {
        JobPtr pJob;
        Wait wait;
    };

    bool empty() const { return m_byTime.empty(); }

    /// A job that has waited waits on, as long as it would have.
    void add(JobPtr pJob, const Wait& wait, Clock::time_point now);

    /// Wakes those whom changes concern that have been committed. They are in the order of their numbers, and the store
    /// has all of them.
    void touched(const std::vector<Touched>& changes, Store& store);
    /// Wakes those whose time is up; when the next one's is.
    std::optional<Clock::time_point> timeIsUp(Clock::time_point now);
    /// Wakes all, or all who watch a key. Needs no memory.
    void wakeAll();
    void wakeAll(KeyId key) { wake(key, false, INT64_MAX); }

    /// Wakes a user's with that id: their time is up. Returns how many they are.
    size_t end(const User& user, uint64_t id);

    /// One that is awake; it is the caller's now. There is one.
    Watch takeAwake();
    bool isAnyAwake() const { return !m_awake.empty(); }

    /// Drops what waits for a connection, but for what is awake; how many that were.
    size_t drop(const Connection& connection);

private:
    struct Entry;
    using Entries = std::list<Entry>;
    template <class Key>
    using Index = std::multimap<Key, Entries::iterator>;
    using ByTime = Index<Clock::time_point>;
    using ById = Index<std::pair<const User*, uint64_t>>;
    using ByConnection = Index<const Connection*>;
    struct Entry {
        Watch watch;
        // The end where it is not in the index.
        ByTime::iterator time;
        ById::iterator id;
        ByConnection::iterator connection;
    };

    void wake(KeyId key, bool above, int64_t number);
    void wake(Entries::iterator entry) { move(entry, m_awake); }
    void move(Entries::iterator entry, Entries& to);
    void leaveIndexes(Entry& entry);

    std::unordered_map<KeyId, Entries> m_waiting; // by what they watch
    ByTime m_byTime;                              // the same
    ById m_byId;                                  // those of them that have one
    ByConnection m_byConnection;
    Entries m_awake;
};

} // namespace obregd

#endif
