#include "daemon/serve/connection.h"

#include <cstring>
#include <span>

#include "daemon/log.h"

namespace obregd {

namespace {

/// What a write under way and a queued reply cost besides their bytes, roughly, so that many small ones count too.
constexpr size_t WriteOverhead = 512;
constexpr size_t ReplyOverhead = 128;
/// Replies are sent when that much waits, and at the latest before more is read.
constexpr size_t SendAt = size_t{256} * 1024;
constexpr size_t MaxGather = 64;

size_t costOf(const WriteJob& job) { return job.request.capacity() + WriteOverhead; }

} // namespace

Connection::Connection(ConnectionHost& host, Socket socket, const Peer& peer)
    : m_host(host), m_socket(std::move(socket)), m_peer(peer)
{
    m_socket.non_blocking(true);
    count(Figure::Accepted);
    count(Figure::Connected);
    logLine(LOG_DEBUG, "uid %u, process %d: connected", peer.uid, peer.pid);
}

Connection::~Connection()
{
    m_host.holds(-static_cast<ptrdiff_t>(held()));
    m_host.forget(*this);
    count(Figure::Connected, -1);
    logLine(LOG_DEBUG, "uid %u, process %d: disconnected", m_peer.uid, m_peer.pid);
}

void Connection::goOn()
{
    try {
        while (!m_reading && takePacket())
            m_begun.reset();
        flush();
        if (!m_reading && !m_stopped && m_committing <= m_host.limits().maxPayload)
            read();
        else if (!m_reading)
            m_begun.reset();                  // while nothing is read, time is not the client's
    } catch (const std::exception& failure) { // no memory
        cutOff(failure.what());
    }
}

void Connection::read()
{
    const auto goOnReading = [self = shared_from_this()](const asio::error_code& error, size_t bytes) {
        self->m_reading = false;
        count(Figure::BytesReceived, static_cast<int64_t>(bytes));
        if (error)
            self->m_stopped = true;
        else if (!self->m_stopped)
            self->arrived(bytes);
        self->goOn();
    };
    m_socket.async_read_some(room(), goOnReading);
    m_reading = true;
    if (!m_begun && (m_inPayload || m_end != 0))
        m_begun = std::chrono::steady_clock::now();
}

bool Connection::isOverdue(std::chrono::steady_clock::time_point now) const
{
    return m_begun && now - *m_begun > std::chrono::seconds(m_host.limits().maxArrival);
}

/// Serves the next request if all of it is there.
bool Connection::takePacket()
{
    if (m_stopped || (!m_inPayload && !takeHeader()))
        return false;
    if (payloadIsLong()) {
        if (!m_payload.complete())
            return false;
        serve(m_payload.text());
        m_payload = Payload();
        setHeld(m_arriving, 0);
    } else {
        if (m_end - m_begin < m_length)
            return false;
        serve({m_input.data() + m_begin, m_length});
        m_begin += m_length;
    }
    m_inPayload = false;
    return true;
}

/// Takes the next header if all of it is there. A bad one ends the connection.
bool Connection::takeHeader()
{
    const char* const pHeader = m_input.data() + m_begin;
    if (m_end - m_begin < PktHdrLength)
        return false;
    int length = 0;
    if (!ChannelProto::getReqIdAndPayloadLength(pHeader, PktHdrLength, &m_reqId, &length)) {
        cutOff("sent a packet header that cannot be read");
        return false;
    }
    if (ChannelProto::getPktType(*pHeader) != ChannelProto::ReqDataCarrierPacketType) {
        cutOff("sent a packet that is no request");
        return false;
    }
    const size_t limit = m_host.limits().maxPayload;
    if (length < 0 || static_cast<size_t>(length) > limit) {
        cutOff("announced a request of " + std::to_string(length) + " bytes; the limit (--max-payload) is " +
               std::to_string(limit));
        return false;
    }
    m_begin += PktHdrLength;
    m_length = static_cast<size_t>(length);
    m_inPayload = true;
    if (payloadIsLong()) {
        m_payload = Payload(m_length, {m_input.data() + m_begin, m_end - m_begin});
        m_begin = m_end;
    }
    return true;
}

/// Where the next bytes go.
asio::mutable_buffer Connection::room()
{
    if (m_inPayload && payloadIsLong()) {
        const std::span<char> room = m_payload.room();
        setHeld(m_arriving, m_payload.capacity());
        return {room.data(), room.size()};
    }
    std::memmove(m_input.data(), m_input.data() + m_begin, m_end - m_begin);
    m_end -= m_begin;
    m_begin = 0;
    return {m_input.data() + m_end, m_input.size() - m_end};
}

void Connection::arrived(size_t bytes)
{
    if (m_inPayload && payloadIsLong())
        m_payload.arrived(bytes);
    else
        m_end += bytes;
}

void Connection::serve(std::string_view request)
{
    const Operation* const pOperation = findOperation(request);
    countRequest(pOperation != nullptr ? pOperation->type : ReqMessage::UnknownReqMsgType);
    if (pOperation == nullptr)
        return queue(m_reqId, Reply());
    if (pOperation->writes)
        return submit(*pOperation, request);
    try {
        queue(m_reqId, pOperation->serve({m_host.store(), nullptr, m_peer}, request));
    } catch (const NeedsWriter&) {
        submit(*pOperation, request);
    } catch (const SQLite::Exception& failure) {
        logLine(LOG_ERR, "the store failed in a read: %s (%d)", failure.what(), failure.getExtendedErrorCode());
        queue(m_reqId, pOperation->refuse(statusOf(failure)));
    }
}

void Connection::submit(const Operation& operation, std::string_view request)
{
    WriteJob job{shared_from_this(), m_reqId, m_peer, &operation,
                 payloadIsLong() ? std::move(m_payload) : Payload(request.size(), request)};
    setHeld(m_committing, m_committing + costOf(job));
    m_host.submit(std::move(job));
}

void Connection::answer(WriteJob& job)
{
    setHeld(m_committing, m_committing - costOf(job));
    queue(job.reqId, std::move(job.reply));
}

void Connection::queue(uint32_t reqId, Reply&& reply)
{
    if (!m_socket.is_open())
        return;
    Outgoing& outgoing = m_out.emplace_back();
    outgoing.reply = std::move(reply);
    if (outgoing.reply.pText != nullptr)
        ChannelProto::buildReqDataPktHdr(reqId, outgoing.reply.length, outgoing.header.data());
    else
        ChannelProto::buildReqErrorPktHdr(reqId, 0, outgoing.header.data());
    setHeld(m_queued, m_queued + outgoing.size() + ReplyOverhead);
    if (m_queued >= SendAt)
        flush();
    if (m_queued > m_host.limits().maxQueued && m_out.size() > 1)
        cutOff("does not take its replies; the limit (--max-queued) is " + std::to_string(m_host.limits().maxQueued));
}

void Connection::flush()
{
    while (!m_sending && !m_out.empty()) {
        std::array<asio::const_buffer, MaxGather> parts;
        size_t count = 0;
        size_t sent = m_outSent;
        for (auto next = m_out.begin(); next != m_out.end() && count < MaxGather; ++next) {
            const auto length = static_cast<size_t>(next->reply.length);
            parts[count++] = asio::buffer(next->header) + sent;
            parts[count++] =
                asio::buffer(next->reply.pText.get(), length) + (sent - std::min(sent, next->header.size()));
            sent = 0;
        }
        asio::error_code error;
        dropSent(m_socket.write_some(std::span(parts.data(), count), error));
        if (error == asio::error::would_block)
            waitToSend();
        else if (error && error != asio::error::interrupted)
            close();
    }
}

void Connection::waitToSend()
{
    m_sending = true;
    m_socket.async_wait(Socket::wait_write, [self = shared_from_this()](const asio::error_code& error) {
        self->m_sending = false;
        if (!error)
            self->goOn();
    });
}

void Connection::dropSent(size_t bytes)
{
    count(Figure::BytesSent, static_cast<int64_t>(bytes));
    m_outSent += bytes;
    while (!m_out.empty() && m_outSent >= m_out.front().size()) {
        m_outSent -= m_out.front().size();
        setHeld(m_queued, m_queued - m_out.front().size() - ReplyOverhead);
        m_out.pop_front();
    }
}

void Connection::stopReading()
{
    m_stopped = true;
    asio::error_code ignored;
    m_socket.shutdown(Socket::shutdown_receive, ignored);
}

void Connection::cutOff(const std::string& reason)
{
    if (!m_socket.is_open())
        return;
    count(Figure::CutOff);
    logLine(LOG_WARNING, "uid %u, process %d: %s; the connection is closed", m_peer.uid, m_peer.pid, reason.c_str());
    close();
}

void Connection::close()
{
    m_stopped = true;
    asio::error_code ignored;
    m_socket.close(ignored);
    m_out.clear();
    m_outSent = 0;
    setHeld(m_queued, 0);
}

void Connection::setHeld(size_t& part, size_t bytes)
{
    const auto more = static_cast<ptrdiff_t>(bytes) - static_cast<ptrdiff_t>(part);
    part = bytes;
    m_host.holds(more);
}

} // namespace obregd
