// Tells those who wait for changes: who has been woken by a commit, whose time is up, all of them at a stop.
//
// Some at a time, so that a change that wakes thousands does not keep the others waiting. The look into the journal is
// brief; one that would not be is left to the readers. Belongs to the server and its thread.
#ifndef OBREG_DAEMON_SERVE_TELLER_H
#define OBREG_DAEMON_SERVE_TELLER_H

#include <asio.hpp>

#include "daemon/serve/connection.h"
#include "daemon/serve/reserve.h"
#include "daemon/serve/watches.h"

namespace obregd {

class Teller {
public:
    /// most: requests of one user that wait. The context and the store outlive it.
    Teller(asio::io_context& io, Store& store, size_t most) : m_io(io), m_store(store), m_most(most), m_timer(io) {}

    /// Keeps a request until there is something to tell; false when the user has as many of them as he may.
    bool watch(User& user, JobPtr& pJob, const Wait& wait);
    /// Answers a user's requests with that id, and says how many they are.
    size_t end(const User& user, uint64_t id);
    /// Lets those go that are kept for a connection.
    void drop(const Connection& connection);
    /// Wakes those who want to know of changes, which the store has.
    void wake(const std::vector<Touched>& changes);
    /// Answers all, and whoever comes from now on at once.
    void stop();

private:
    void tellAwake();
    void tell(Watches::Watch&& watch);
    void waitForTime();

    asio::io_context& m_io;
    Store& m_store;
    const size_t m_most;
    Watches m_watches;
    bool m_telling = false; // later
    bool m_stopping = false;
    std::optional<Watches::Clock::time_point> m_time; // when the timer ends
    Reserve m_tellReserve;
    Reserve m_timeReserve;
    asio::steady_timer m_timer;
};

} // namespace obregd

#endif
