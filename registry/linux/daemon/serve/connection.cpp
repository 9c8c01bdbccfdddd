#include "daemon/serve/connection.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <span>

#include "daemon/log.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

/// What a queued reply costs besides its bytes, roughly, so that many small ones count too.
constexpr size_t ReplyOverhead = 128;
/// A longer request is not even looked at on the thread that serves everybody, unless it is to be written anyway.
constexpr size_t LongRequest = size_t{64} * 1024;
/// Replies are sent when that much waits, and at the latest before more is read.
constexpr size_t SendAt = size_t{256} * 1024;
constexpr size_t MaxGather = 64;
constexpr auto TurnTime = std::chrono::milliseconds(1);
constexpr auto QuietTurnTime = std::chrono::microseconds(100); // when it need not get in line

} // namespace

Connection::Connection(ConnectionHost& host, Socket socket, std::shared_ptr<User> pUser, pid_t process)
    : m_host(host), m_pUser(std::move(pUser)), m_peer{m_pUser->uid, process}, m_socket(std::move(socket))
{
    m_socket.non_blocking(true);
    m_pUser->connections.insert(this);
    count(*m_pUser->pCounts, UserFigure::Connections);
    count(Figure::Accepted);
    count(Figure::Connected);
    logLine(LOG_DEBUG, "uid %u, process %d: connected", m_peer.uid, m_peer.pid);
}

Connection::~Connection()
{
    leave();
    setCommitting(0);
    m_host.holds(*m_pUser, -static_cast<ptrdiff_t>(held()));
    logLine(LOG_DEBUG, "uid %u, process %d: disconnected", m_peer.uid, m_peer.pid);
}

void Connection::begin()
{
    setHeld(m_itself, Overhead);
    goOn();
}

/// Is none of the user's and the server's connections any more.
void Connection::leave()
{
    if (!isOpen())
        return;
    m_open.store(false, std::memory_order_relaxed);
    m_pUser->connections.erase(this);
    setHeld(m_itself, 0);
    count(*m_pUser->pCounts, UserFigure::Connections, -1);
    count(Figure::Connected, -1);
    m_host.closed(*this);
}

/// Runs a piece of the work; cuts the client off when there is no memory for it.
template <class Action>
void Connection::attempt(Action action)
{
    try {
        action();
    } catch (const std::exception& failure) {
        cutOff(Cause::NoMemory, "%s", failure.what());
    }
}

void Connection::goOn()
{
    attempt([this] {
        flush();
        nextLongRead();
        if (m_reading || m_pInLine != nullptr)
            return;
        if (m_host.isQuiet())
            work(QuietTurnTime);
        else
            getInLine();
    });
}

void Connection::getInLine()
{
    m_pInLine = shared_from_this();
    m_host.wantsTurn(m_turn);
}

void Connection::takeTurn()
{
    const std::shared_ptr<Connection> self = std::exchange(m_pInLine, nullptr);
    attempt([this] { work(TurnTime); });
}

void Connection::work(Clock::duration time)
{
    const bool more = serveFor(time);
    flush();
    nextLongRead();
    if (more && hasHungUp())
        close();
    else if (more)
        getInLine();
    else if (!m_reading)
        readOn();
}

/// Serves the requests that are there until the time is up; whether it was.
bool Connection::serveFor(Clock::duration time)
{
    const Clock::time_point end = Clock::now() + time;
    while (!m_reading && takePacket()) {
        m_begun.reset();
        if (Clock::now() >= end)
            return true;
    }
    return false;
}

/// Reads on, or waits in line until less is committing.
void Connection::readOn()
{
    const Limits& limits = m_host.limits();
    if (!m_stopped && m_committing <= limits.maxPayload && m_pUser->committing <= m_host.writeShare())
        return read();
    m_begun.reset(); // while nothing is read, time is not the client's
    if (m_stopped || m_committing > limits.maxPayload)
        return; // there is nothing to wait for, or its own answers will tell
    m_pInLine = shared_from_this();
    m_pUser->parked.enter(m_parked);
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
        if (error && self->hasHungUp())
            self->close();
        else
            self->goOn();
    };
    m_socket.async_read_some(room(), goOnReading);
    m_reading = true;
    if (!m_begun && (m_inPayload || m_end != 0))
        m_begun = Clock::now();
}

/// Whether the client takes no more replies either.
bool Connection::hasHungUp()
{
    pollfd events{m_socket.native_handle(), 0, 0};
    return isOpen() && poll(&events, 1, 0) > 0 && (events.revents & (POLLHUP | POLLERR)) != 0;
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
        cutOff(Cause::BadPacket, "sent a packet header that cannot be read");
        return false;
    }
    if (ChannelProto::getPktType(*pHeader) != ChannelProto::ReqDataCarrierPacketType) {
        cutOff(Cause::BadPacket, "sent a packet that is no request");
        return false;
    }
    const size_t limit = m_host.limits().maxPayload;
    if (length < 0 || static_cast<size_t>(length) > limit) {
        cutOff(Cause::TooLong, "announced a request of %d bytes; the limit (--max-payload) is %zu", length, limit);
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
        return isOpen() ? asio::buffer(room.data(), room.size()) : asio::mutable_buffer();
    }
    std::memmove(m_input.data(), m_input.data() + m_begin, m_end - m_begin);
    m_end -= m_begin;
    m_begin = 0;
    return {m_input.data() + m_end, m_input.size() - m_end};
}

void Connection::serve(std::string_view request)
{
    const Operation* const pOperation = findOperation(request);
    countRequest(pOperation != nullptr ? pOperation->type : ReqMessage::UnknownReqMsgType);
    count(*m_pUser->pCounts, UserFigure::Requests);
    if (pOperation == nullptr)
        return queue(m_reqId, Reply());
    if (!m_pUser->trusted && !m_pUser->requests.take(m_host.limits().maxRequests, Clock::now())) {
        count(*m_pUser->pCounts, UserFigure::Refused);
        return queue(m_reqId, pOperation->refuse(OBREG_STATUS_QUOTA_EXCEEDED));
    }
    const bool takesLong = pOperation->writes ? isTransaction(*pOperation, request) : request.size() > LongRequest;
    if (pOperation->writes && !takesLong)
        return write(makeJob(*pOperation, request));
    if (takesLong)
        return readLater(makeJob(*pOperation, request));
    try {
        queue(m_reqId, pOperation->serve({m_host.store(), nullptr, m_peer, true}, request));
    } catch (const NeedsWriter&) {
        write(makeJob(*pOperation, request));
    } catch (const MustWait& must) {
        wait(makeJob(*pOperation, request), must.wait);
    } catch (const TooLong&) {
        readLater(makeJob(*pOperation, request));
    } catch (const SQLite::Exception& failure) {
        warn(*m_pUser, m_peer.pid, Cause::StoreFailed, "the store failed in a read: %s; look at it with obregd --check",
             failure.what());
        queue(m_reqId, pOperation->refuse(statusOf(failure)));
    }
}

JobPtr Connection::makeJob(const Operation& operation, std::string_view request)
{
    JobPtr pJob(new Job{shared_from_this(), m_reqId, m_peer, &operation});
    if (payloadIsLong())
        pJob->request = std::move(m_payload);
    else
        pJob->request = Payload(request.size(), request);
    setHeld(m_arriving, 0);
    return pJob;
}

void Connection::write(JobPtr pJob)
{
    setCommitting(m_committing + pJob->cost());
    m_host.writes().push(m_writes, std::move(pJob));
}

/// Answers when there is something to tell, or when the time is up.
void Connection::wait(JobPtr pJob, const Wait& wait)
{
    if (wait.ends)
        return queue(pJob->reqId, tellEnded(m_host.endWatches(*m_pUser, wait.id)));
    const size_t cost = pJob->cost();
    if (m_host.watch(*m_pUser, pJob, wait))
        return setHeld(m_watching, m_watching + cost);
    count(*m_pUser->pCounts, UserFigure::Refused);
    queue(pJob->reqId, pJob->pOperation->refuse(OBREG_STATUS_TOO_MANY_WATCHES));
}

void Connection::tell(Job& job, Reply&& reply)
{
    setHeld(m_watching, m_watching - job.cost());
    queue(job.reqId, std::move(reply));
}

void Connection::lookLater(JobPtr pJob)
{
    setHeld(m_watching, m_watching - pJob->cost());
    readLater(std::move(pJob));
    goOn();
}

void Connection::readLater(JobPtr pJob)
{
    const size_t cost = pJob->cost();
    m_longReads.append(std::move(pJob));
    m_host.countLongReads(1);
    setHeld(m_queued, m_queued + cost);
}

/// Gives the readers the next one when the client has taken the reply to the last.
void Connection::nextLongRead()
{
    if (m_host.isEnding())
        return dropLongReads(); // they hold this connection
    if (m_longRead != 0 || m_longReads.empty() || !m_out.empty())
        return;
    m_longRead = m_longReads.front().cost();
    m_host.reads().push(m_reads, m_longReads.pop());
}

void Connection::dropLongReads()
{
    m_host.countLongReads(-static_cast<ptrdiff_t>(m_longReads.size()));
    setHeld(m_queued, m_queued - m_longReads.cost());
    m_longReads.clear();
}

void Connection::answer(Job& job)
{
    if (job.pLane == &m_writes)
        setCommitting(m_committing - job.cost());
    else
        longReadOver();
    queue(job.reqId, std::move(job.reply));
}

void Connection::handOn(JobPtr pJob)
{
    longReadOver();
    if (const std::optional<Wait> more = std::exchange(pJob->wait, std::nullopt))
        return wait(std::move(pJob), *more);
    pJob->needsWriter = false;
    if (m_host.isEnding())
        queue(pJob->reqId, Reply());
    else
        write(std::move(pJob));
}

void Connection::longReadOver()
{
    setHeld(m_queued, m_queued - std::exchange(m_longRead, 0));
    m_host.countLongReads(-1);
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
        cutOff(Cause::NotTaken, "does not take its replies; the limit (--max-queued) is %zu",
               m_host.limits().maxQueued);
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
    m_socket.async_wait(Socket::wait_write, [self = shared_from_this()](const asio::error_code& error) {
        self->m_sending = false;
        if (!error)
            self->goOn();
    });
    m_sending = true;
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
    unpark();
}

void Connection::cutOff(Cause cause, const char* pFormat, ...)
{
    if (!isOpen())
        return;
    const auto self = shared_from_this(); // the jobs may be all that holds it
    count(Figure::CutOff);
    std::array<char, 300> reason{};
    va_list values;
    va_start(values, pFormat);
    std::vsnprintf(reason.data(), reason.size(), pFormat, values); // NOLINT: the caller's format is checked
    va_end(values);
    warn(*m_pUser, m_peer.pid, cause, "%s; the connection is closed", reason.data());
    dropLongReads();
    close();
    const JobList dropped = m_host.writes().takeBack(m_writes);
    setCommitting(m_committing - dropped.cost());
    if (!m_host.reads().takeBack(m_reads).empty())
        longReadOver();
}

void Connection::close()
{
    m_stopped = true;
    leave();
    asio::error_code ignored;
    m_socket.close(ignored);
    m_out.clear();
    m_outSent = 0;
    m_payload = Payload();
    setHeld(m_arriving, 0);
    setHeld(m_queued, m_longRead + m_longReads.cost());
    nextLongRead(); // of which the readers do the transactions only
    if (m_watching != 0) {
        m_host.dropWatches(*this);
        setHeld(m_watching, 0);
    }
    unpark();
}

/// Waits no longer for less to be committing, but for a turn.
void Connection::unpark()
{
    if (!m_parked.waits())
        return;
    m_pUser->parked.leave(m_parked);
    m_host.wantsTurn(m_turn);
}

void Connection::setHeld(size_t& part, size_t bytes)
{
    const auto more = static_cast<ptrdiff_t>(bytes) - static_cast<ptrdiff_t>(part);
    part = bytes;
    m_host.holds(*m_pUser, more);
}

/// Those of the user's connections that wait for less to be committing read on when it is.
void Connection::setCommitting(size_t bytes)
{
    const bool wrote = m_pUser->committing != 0;
    m_pUser->committing += bytes - m_committing;
    const bool writes = m_pUser->committing != 0;
    if (wrote != writes)
        m_host.countWriter(writes ? 1 : -1);
    setHeld(m_committing, bytes);
    while (!m_pUser->parked.empty() && m_pUser->committing <= m_host.writeShare())
        (*m_pUser->parked.begin())->unpark();
}

} // namespace obregd
