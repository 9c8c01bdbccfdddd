#include "daemon/server.h"

#include <asio/experimental/as_tuple.hpp>
#include <csignal>
#include <sys/socket.h>

#include "daemon/log.h"

namespace obregd {

namespace {

constexpr auto AcceptPause = std::chrono::milliseconds(100);
constexpr auto LastSendTime = std::chrono::seconds(1);

Peer peerOf(int fd)
{
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        throw std::system_error(errno, std::generic_category(), "SO_PEERCRED");
    return {credentials.uid, credentials.pid};
}

} // namespace

Server::Server(int listeningDescriptor, Store& store, WritableStore& writableStore, const Limits& limits)
    : m_store(store), m_limits(limits), m_work(m_io.get_executor()),
      m_acceptor(m_io, asio::local::stream_protocol(), listeningDescriptor), m_signals(m_io, SIGTERM, SIGINT),
      m_deadline(m_io), m_committer(writableStore, committerCallbacks())
{
    m_store.keepState(true);
}

/// The committer's news, brought to the server's thread in their order.
Committer::Callbacks Server::committerCallbacks()
{
    Committer::Callbacks callbacks;
    callbacks.answered = [this](Batch&& batch) {
        asio::post(m_io, [this, answered = std::move(batch)]() mutable { answer(answered); });
    };
    callbacks.tidying = [this](bool begins) { asio::post(m_io, [this, begins] { m_store.keepState(!begins); }); };
    callbacks.ended = [this] { asio::post(m_io, [this] { end(); }); };
    return callbacks;
}

void Server::run()
{
    m_signals.async_wait([this](const asio::error_code& error, int signal) {
        if (!error) {
            logLine(LOG_NOTICE, "signal %d: stopping", signal);
            stop();
        }
    });
    asio::co_spawn(m_io, acceptAll(), asio::detached);
    m_io.run();
}

asio::awaitable<void> Server::acceptAll()
{
    constexpr auto token = asio::experimental::as_tuple(asio::use_awaitable);
    bool failing = false; // one line in the log for each spell of failures
    while (!m_stopping) {
        auto [error, socket] = co_await m_acceptor.async_accept(token);
        if (m_stopping)
            break;
        if (!error) {
            failing = false;
            begin(std::move(socket));
            continue;
        }
        if (!failing)
            logLine(LOG_ERR, "cannot accept connections: %s; trying again", error.message().c_str());
        failing = true;
        asio::steady_timer pause(m_io, AcceptPause);
        co_await pause.async_wait(token);
    }
}

void Server::begin(Connection::Socket socket)
{
    try {
        const Peer peer = peerOf(socket.native_handle());
        ConnectionHost& host = *this;
        const auto pConnection = std::make_shared<Connection>(host, std::move(socket), peer);
        m_connections.insert(pConnection.get());
        asio::co_spawn(m_io, pConnection->run(), [pConnection](const std::exception_ptr& pFailure) {
            try {
                if (pFailure)
                    std::rethrow_exception(pFailure);
            } catch (const std::exception& failure) {
                pConnection->cutOff(failure.what());
            }
        });
    } catch (const std::exception& failure) {
        logLine(LOG_ERR, "a connection cannot be served: %s", failure.what());
    }
}

void Server::answer(Batch& batch)
{
    m_store.refresh(); // who has been answered, and whom he tells, sees what was written
    for (WriteJob& job : batch) {
        try {
            job.pConnection->answer(job);
        } catch (const std::bad_alloc& failure) {
            job.pConnection->cutOff(failure.what());
        }
    }
    for (WriteJob& job : batch)
        job.pConnection->flush();
}

void Server::holds(ptrdiff_t more)
{
    m_held += static_cast<size_t>(more);
    count(Figure::BytesHeld, more);
    if (more <= 0 || m_held <= m_limits.maxHeld)
        return;
    const auto most = std::max_element(m_connections.begin(), m_connections.end(),
                                       [](const Connection* a, const Connection* b) { return a->held() < b->held(); });
    if (most != m_connections.end())
        (*most)->cutOff("holds most of what all clients may make the daemon hold; the limit (--max-held) is " +
                        std::to_string(m_limits.maxHeld));
}

void Server::forget(Connection& connection)
{
    m_connections.erase(&connection);
    if (m_stopping && m_connections.empty())
        m_deadline.cancel();
}

void Server::stop()
{
    m_stopping = true;
    m_acceptor.close();
    for (Connection* pConnection : m_connections)
        pConnection->stopReading();
    m_committer.finish();
}

/// The last write has been answered; whatever its client has not taken soon is lost to it.
void Server::end()
{
    m_work.reset();
    if (m_connections.empty())
        return;
    m_deadline.expires_after(LastSendTime);
    m_deadline.async_wait([this](const asio::error_code& error) {
        if (error)
            return;
        for (Connection* pConnection : m_connections)
            pConnection->close();
    });
}

} // namespace obregd
