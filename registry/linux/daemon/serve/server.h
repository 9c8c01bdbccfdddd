// The running daemon: accepts connections, answers short reads on its one thread, lets the readers do the long ones and
// the committer the writes, and stops in good order.
//
// Everything but the threads of the readers and the committer runs inside run(), on the thread that calls it; that
// thread owns the reading store and every connection, so nothing here needs a lock.
//
// The thread serves one connection for a millisecond at the most, then looks what has come in meanwhile, then serves
// the next one: users take turns, and each user's connections.
//
// When memory is short, what is being done for a client is given up, and that client's connection with it. Accepting
// clients and bringing the committer's answers to this thread go on.
#ifndef OBREG_DAEMON_SERVE_SERVER_H
#define OBREG_DAEMON_SERVE_SERVER_H

#include <list>
#include <unordered_set>

#include "common/worthtrying.h"
#include "daemon/serve/committer.h"
#include "daemon/serve/connection.h"
#include "daemon/serve/readers.h"
#include "daemon/serve/reserve.h"
#include "daemon/serve/teller.h"

namespace obregd {

/// How many connections there may be.
struct Descriptors {
    size_t all;
    size_t forOthers; ///< for users who are not trusted: some are kept for root and the daemon's own user
};

class Server : private ConnectionHost {
public:
    /// Serves the connections made to a listening descriptor, which it takes over. The stores, and the guard and the
    /// shared trees, which may be null, outlive the server.
    Server(int listeningDescriptor, Store& store, WritableStore& writableStore, const Limits& limits,
           WriteGuard* pGuard = nullptr, SharedTrees* pShared = nullptr);

    /// Takes over another listening descriptor in place of the one that it has.
    void listenOn(int descriptor);

    /// Has something done again and again while it runs, on its thread. Before run().
    void every(std::chrono::milliseconds interval, std::function<void()> chore);

    /// Has something done at the first signal to stop. Before run().
    void onStop(std::function<void()> action) { m_onStop = std::move(action); }

    bool isStopping() const { return m_stopping; }

    /// Returns after SIGTERM or SIGINT, when what had been begun has been answered. A second signal ends the process.
    void run();

private:
    const Limits& limits() const override { return m_limits; }
    Store& store() override { return m_store; }
    JobQueue& reads() override { return m_reads; }
    JobQueue& writes() override { return m_writes; }
    bool isQuiet() const override { return m_turns.empty() && m_connections.size() <= FewConnections; }
    void wantsTurn(Turns<Connection>::Place& place) override;
    size_t writeShare() const override;
    void countWriter(int more) override { m_writers += more; }
    void holds(User& user, ptrdiff_t more) override;
    void countLongReads(ptrdiff_t more) override;
    bool isEnding() const override { return m_ending; }
    bool watch(User& user, JobPtr& pJob, const Wait& wait) override { return m_teller.watch(user, pJob, wait); }
    size_t endWatches(const User& user, uint64_t id) override { return m_teller.end(user, id); }
    void dropWatches(const Connection& connection) override { m_teller.drop(connection); }
    void closed(Connection& connection) override;

    template <class Action>
    void postSurely(Action action);
    void postAnswers(JobList&& jobs, std::vector<Touched>&& touched = {});
    Committer::Callbacks committerCallbacks();
    void work();
    bool pollFor(std::chrono::microseconds time);
    void giveTurns();
    void giveTurn();
    void waitForSignal();
    void waitForClients();
    void acceptClients();
    void pauseAccepting(const asio::error_code& error);
    void begin(Connection::Socket socket);
    bool admits(User& user, pid_t process);
    void lookForOverdue();
    void answer(JobList& jobs);
    void makeRoom(User& user, const char* pReason, size_t limit);
    void stop();
    void finishJobs();
    void end();

    struct Chore {
        Chore(asio::io_context& io, Reserve& memory, std::chrono::milliseconds time, std::function<void()> work)
            : timer(io), reserve(memory), interval(time), action(std::move(work))
        {}
        asio::steady_timer timer;
        Reserve& reserve;
        std::chrono::milliseconds interval;
        std::function<void()> action;
    };
    void waitFor(Chore& chore);

    static constexpr size_t FewConnections = 64; // whose short turns together take a few milliseconds
    Store& m_store;
    const Descriptors m_descriptors;
    const Limits m_limits;
    size_t m_held = 0;
    int m_tidying = 0; // those who want readers to keep no state
    int m_writers = 0; // users with writes on their way to the disk
    ptrdiff_t m_longReads = 0;
    bool m_stopping = false;
    bool m_ending = false; // all that was to be answered is
    LogLimit m_choreLog;
    bool m_acceptFailing = false;
    std::unordered_set<Connection*> m_connections; // the open ones
    Users m_users;
    Turns<Connection> m_turns;
    bool m_givingTurns = false; // later
    JobQueue m_reads;
    JobQueue m_writes;
    std::function<void()> m_onStop;
    WorthTrying m_worthWatching;
    Reserve m_acceptReserve;
    Reserve m_pauseReserve;
    Reserve m_turnReserve;
    Reserve m_signalReserve;
    Reserve m_stopReserve;
    Reserve m_endReserve;
    std::list<Reserve> m_choreReserves;
    asio::io_context m_io{1}; // destroyed before what its handlers touch
    asio::executor_work_guard<asio::io_context::executor_type> m_work;
    asio::local::stream_protocol::acceptor m_acceptor;
    asio::signal_set m_signals;
    asio::steady_timer m_deadline;
    asio::steady_timer m_lastReads;
    asio::steady_timer m_pause;
    Teller m_teller;
    std::list<Chore> m_chores;
    Readers m_readers;     // its threads use m_io
    Committer m_committer; // last: so does its thread
};

} // namespace obregd

#endif
