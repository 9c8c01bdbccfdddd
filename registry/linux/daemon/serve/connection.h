// One client: its socket, the requests that come in and the replies that go out.
//
// It reads until the client ends it or is cut off, answers reads on the spot and hands writes to the committer. It
// never waits for the client to take a reply: replies that the socket does not take wait in a queue, several go out
// with one call, and a client that lets them pile up beyond the limit is cut off. It does read no more while more than
// a request's worth of writes is on its way to the disk, which depends on no client.
//
// Everything runs on the server's thread. A connection lives as long as a read, a write to the store or a reply under
// way holds it, so a client that has shut down its sending side still gets its replies.
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
#include "daemon/options.h"
#include "daemon/serve/committer.h"

namespace obregd {

class Connection;

/// What a connection needs of the server that it belongs to.
class ConnectionHost {
public:
    virtual const Limits& limits() const = 0;
    virtual Store& store() = 0;
    virtual void submit(WriteJob&& job) = 0;
    /// The connection holds that many bytes more, or less. May cut off the one that holds most.
    virtual void holds(ptrdiff_t more) = 0;
    /// The connection is being destroyed.
    virtual void forget(Connection& connection) = 0;

protected:
    ~ConnectionHost() = default;
};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Socket = asio::local::stream_protocol::socket;

    Connection(ConnectionHost& host, Socket socket, const Peer& peer);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Serves the requests that are there and reads on. Cuts the client off when that cannot be done.
    void goOn();

    /// Queues the answer to a write. goOn() when all those at hand are queued.
    void answer(WriteJob& job);

    /// Takes no more requests; what is under way is still answered.
    void stopReading();
    /// Ends the connection at once and says in the log who it was and why.
    void cutOff(const std::string& reason);
    void close();

    /// Whether a request has been arriving for longer than the limit.
    bool isOverdue(std::chrono::steady_clock::time_point now) const;

    const Peer& peer() const { return m_peer; }

    /// Bytes that wait here: a request arriving, writes under way, replies not taken.
    size_t held() const { return m_arriving + m_committing + m_queued; }

private:
    struct Outgoing {
        std::array<char, PktHdrLength> header;
        Reply reply;
        size_t size() const { return header.size() + static_cast<size_t>(reply.length); }
    };

    void read();
    bool takePacket();
    bool takeHeader();
    bool payloadIsLong() const { return m_length > m_input.size(); }
    asio::mutable_buffer room();
    void arrived(size_t bytes);
    void serve(std::string_view request);
    void submit(const Operation& operation, std::string_view request);
    void queue(uint32_t reqId, Reply&& reply);
    void flush();
    void waitToSend();
    void dropSent(size_t bytes);
    void setHeld(size_t& part, size_t bytes);

    ConnectionHost& m_host;
    Socket m_socket;
    const Peer m_peer;
    bool m_reading = false; // waits for more to come
    bool m_stopped = false; // reads no more
    bool m_sending = false; // waits for the socket to take more

    // What has been read and not been used yet: m_input from m_begin to m_end, or a payload too long for it.
    std::array<char, 2048> m_input;
    size_t m_begin = 0;
    size_t m_end = 0;
    bool m_inPayload = false; // a header has been read and its payload has not
    uint32_t m_reqId = 0;
    size_t m_length = 0;
    Payload m_payload;                                            // the long one that is arriving
    std::optional<std::chrono::steady_clock::time_point> m_begun; // when what has arrived in part was first waited for

    std::deque<Outgoing> m_out;
    size_t m_outSent = 0; // bytes of the first one that are gone

    // The parts of held().
    size_t m_arriving = 0;
    size_t m_committing = 0;
    size_t m_queued = 0;
};

} // namespace obregd

#endif
