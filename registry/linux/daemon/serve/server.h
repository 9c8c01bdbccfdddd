// The running daemon: accepts connections, answers reads on its one thread, lets the committer do the writes, and stops
// in good order.
//
// Everything but the committer's own thread runs inside run(), on the thread that calls it; that thread owns the
// reading store and every connection, so nothing here needs a lock.
//
// When memory is short, what is being done for a client is given up, and that client's connection with it. Accepting
// clients and bringing the committer's answers to this thread go on.
#ifndef OBREG_DAEMON_SERVE_SERVER_H
#define OBREG_DAEMON_SERVE_SERVER_H

#include <list>
#include <unordered_map>
#include <unordered_set>

#include "common/worthtrying.h"
#include "daemon/serve/connection.h"
#include "daemon/serve/reserve.h"

namespace obregd {

class Server : private ConnectionHost {
public:
    /// Serves the connections made to a listening descriptor, which it takes over. The stores outlive the server.
    Server(int listeningDescriptor, Store& store, WritableStore& writableStore, const Limits& limits);

    /// Runs the chore on the serving thread at that interval while the server runs. Before run().
    void every(std::chrono::milliseconds interval, std::function<void()> chore);
    /// Runs it when the stop begins. Before run().
    void onStop(std::function<void()> action) { m_onStop = std::move(action); }
    /// Takes over a new listening descriptor in place of the present one. On the serving thread.
    void listenOn(int descriptor);

    /// Returns after SIGTERM or SIGINT, when what had been begun has been answered.
    void run();

private:
    const Limits& limits() const override { return m_limits; }
    Store& store() override { return m_store; }
    void submit(WriteJob&& job) override { m_committer.submit(std::move(job)); }
    void holds(ptrdiff_t more) override;
    void forget(Connection& connection) override;

    Committer::Callbacks committerCallbacks();
    void work();
    bool pollFor(std::chrono::microseconds time);
    void waitForClients();
    void acceptClients();
    void pauseAccepting(const asio::error_code& error);
    void begin(Connection::Socket socket);
    bool admits(const Peer& peer);
    void lookForOverdue();
    void answer(Batch& batch);
    void stop();
    void end();

    Store& m_store;
    const Limits m_limits;
    size_t m_held = 0;
    bool m_stopping = false;
    bool m_acceptFailing = false;
    std::unordered_set<Connection*> m_connections;
    struct User {
        size_t connections = 0;
        size_t refused = 0; // since the last line about it in the log
        std::optional<std::chrono::steady_clock::time_point> logged;
    };
    std::unordered_map<uid_t, User> m_users;
    bool m_looking = false; // for overdue requests, later
    WorthTrying m_worthWatching;
    Reserve m_acceptReserve;
    Reserve m_pauseReserve;
    Reserve m_lookReserve;
    asio::io_context m_io{1}; // destroyed before what its handlers touch
    asio::executor_work_guard<asio::io_context::executor_type> m_work;
    asio::local::stream_protocol::acceptor m_acceptor;
    asio::signal_set m_signals;
    asio::steady_timer m_deadline;
    asio::steady_timer m_pause;
    asio::steady_timer m_look;
    struct Chore {
        std::chrono::milliseconds interval;
        std::function<void()> work;
        asio::steady_timer timer;
    };
    void wait(Chore& chore);
    std::list<Chore> m_chores;
    std::function<void()> m_onStop;
    Committer m_committer; // last: its thread uses m_io
};

} // namespace obregd

#endif
