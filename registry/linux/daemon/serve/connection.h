// One client: its socket, the requests that come in and the replies that go out.
//
// It reads until the client ends it or is cut off, and serves what it has read when it is its turn (turns.h): for a
// millisecond, then the others come first. Short reads are answered on the spot; writes go to the committer, and reads
// that take long to the readers, one at a time and the next when the client has taken the last.
//
// It never waits for the client to take a reply: replies that the socket does not take wait in a queue, several go out
// with one call, and a client that lets them pile up beyond the limit is cut off. It does read no more while too many
// writes, its own or its user's, are on their way to the disk, which depends on no client.
//
// A client that has hung up is served no more; the writes that were read from it by then, transactions too, are done
// all the same. One that has only shut down its sending side still gets its replies. Of one that is cut off, writes
// that have not begun are dropped.
//
// Everything runs on the server's thread, but for isOpen(). A connection lives as long as a read, a job, a reply under
// way or a place in line holds it.
//
// Plain callbacks and no coroutine: Asio's coroutines end the process when they get no memory.
#ifndef OBREG_DAEMON_SERVE_CONNECTION_H
#define OBREG_DAEMON_SERVE_CONNECTION_H

#include <array>
#include <asio.hpp>
#include <chrono>
#include <deque>
#include <optional>

#include "common/channelproto.h"
#include "daemon/serve/users.h"

namespace obregd {

class Connection;

/// What a connection needs of the server that it belongs to.
class ConnectionHost {
public:
    virtual const Limits& limits() const = 0;
    virtual Store& store() = 0;
    virtual JobQueue& reads() = 0;
    virtual JobQueue& writes() = 0;
    /// The connection wants a turn: its takeTurn() is called when the others have had theirs.
    virtual void wantsTurn(Turns<Connection>::Place& place) = 0;
    /// Whether so few are there that one need not get in line for a short turn.
    virtual bool isQuiet() const = 0;
    /// Keeps a request until there is something to tell; false when the user has as many of them as he may.
    virtual bool watch(User& user, JobPtr& pJob, const Wait& wait) = 0;
    /// Answers a user's requests that are kept under that id, and says how many they are.
    virtual size_t endWatches(const User& user, uint64_t id) = 0;
    /// The connection is closed: the requests that are kept for it go.
    virtual void dropWatches(const Connection& connection) = 0;
    /// So many reads more, or less, are to be done by the readers.
    virtual void countLongReads(ptrdiff_t more) = 0;
    /// Whether nobody does jobs any more.
    virtual bool isEnding() const = 0;
    /// So many bytes of one user's may be on their way to the disk before nothing more is read from him.
    virtual size_t writeShare() const = 0;
    /// One user more, or less, has writes on their way to the disk.
    virtual void countWriter(int more) = 0;
    /// The user's connections hold that many bytes more, or less. May cut off one of the user who holds most.
    virtual void holds(User& user, ptrdiff_t more) = 0;
    /// The connection has been closed.
    virtual void closed(Connection& connection) = 0;

protected:
    ~ConnectionHost() = default;
};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Socket = asio::local::stream_protocol::socket;
    using Clock = std::chrono::steady_clock;

    Connection(ConnectionHost& host, Socket socket, std::shared_ptr<User> pUser, pid_t process);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Once, when it is one of the server's.
    void begin();
    /// Asks for a turn if there may be something to do.
    void goOn();
    /// Serves the requests that are there, for a while, and reads on. Cuts the client off when that cannot be done.
    void takeTurn();
    Turns<Connection>::Place& turn() { return m_turn; }

    /// Queues the answer to a job. goOn() when all those at hand are queued.
    void answer(Job& job);
    /// Takes a job back from the readers that is one for the committer, or that waits.
    void handOn(JobPtr pJob);
    /// Queues the answer to a job that has waited. goOn() when all those at hand are queued.
    void tell(Job& job, Reply&& reply);
    /// Leaves it to the readers to look what there is to tell.
    void lookLater(JobPtr pJob);

    /// Takes no more requests; what is under way is still answered.
    void stopReading();
    /// Ends the connection at once and says in the log who it was and why.
    void cutOff(Cause cause, const char* pFormat, ...) __attribute__((format(printf, 3, 4)));
    void close();

    /// Whether anybody is left to be answered. Any thread.
    bool isOpen() const { return m_open.load(std::memory_order_relaxed); }

    /// Whether a request has been arriving for longer than the limit.
    bool isOverdue(Clock::time_point now) const
    {
        return m_begun && now - *m_begun > std::chrono::seconds(m_host.limits().maxArrival);
    }

    User& user() const { return *m_pUser; }

    /// Bytes that wait here: a request arriving, writes under way, replies not taken, questions what has changed; and
    /// its own, while it is open.
    size_t held() const { return m_arriving + m_committing + m_queued + m_watching + m_itself; }
    /// What it takes without any of that, with what Asio and the kernel have of it.
    static constexpr size_t Overhead = 4096;

private:
    struct Outgoing {
        std::array<char, PktHdrLength> header;
        Reply reply;
        size_t size() const { return header.size() + static_cast<size_t>(reply.length); }
    };

    template <class Action>
    void attempt(Action action);
    void leave();
    void getInLine();
    void work(Clock::duration time);
    bool serveFor(Clock::duration time);
    void readOn();
    void unpark();
    void read();
    bool hasHungUp();
    bool takePacket();
    bool takeHeader();
    bool payloadIsLong() const { return m_length > m_input.size(); }
    asio::mutable_buffer room();
    void arrived(size_t bytes)
    {
        if (m_inPayload && payloadIsLong())
            m_payload.arrived(bytes);
        else
            m_end += bytes;
    }
    void serve(std::string_view request);
    JobPtr makeJob(const Operation& operation, std::string_view request);
    void write(JobPtr pJob);
    void readLater(JobPtr pJob);
    void wait(JobPtr pJob, const Wait& wait);
    void nextLongRead();
    void dropLongReads();
    void longReadOver();
    void queue(uint32_t reqId, Reply&& reply);
    void flush();
    void waitToSend();
    void dropSent(size_t bytes);
    void setHeld(size_t& part, size_t bytes);
    void setCommitting(size_t bytes);

    ConnectionHost& m_host;
    const std::shared_ptr<User> m_pUser;
    const Peer m_peer;
    Socket m_socket;
    std::atomic<bool> m_open{true};
    bool m_reading = false; // waits for more to come
    bool m_stopped = false; // reads no more
    bool m_sending = false; // waits for the socket to take more

    // Places in line; m_pInLine keeps it alive meanwhile.
    Turns<Connection>::Place m_turn{*this, m_pUser->turns};
    Ring<Connection>::Place m_parked{*this};
    JobLane m_reads{m_pUser->reads};
    JobLane m_writes{m_pUser->writes};
    std::shared_ptr<Connection> m_pInLine;

    // What has been read and not been used yet: m_input from m_begin to m_end, or a payload too long for it.
    std::array<char, 2048> m_input;
    size_t m_begin = 0;
    size_t m_end = 0;
    bool m_inPayload = false; // a header has been read and its payload has not
    uint32_t m_reqId = 0;
    size_t m_length = 0;
    Payload m_payload;                        // the long one that is arriving
    std::optional<Clock::time_point> m_begun; // when what has arrived in part was first waited for

    JobList m_longReads;   // that have not gone to the readers yet
    size_t m_longRead = 0; // what the one that the readers have costs
    std::deque<Outgoing> m_out;
    size_t m_outSent = 0; // bytes of the first one that are gone

    // The parts of held().
    size_t m_itself = 0;
    size_t m_arriving = 0;
    size_t m_committing = 0;
    size_t m_queued = 0;
    size_t m_watching = 0;
};

} // namespace obregd

#endif
