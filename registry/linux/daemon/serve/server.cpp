#include "daemon/serve/server.h"

#include <asio/bind_allocator.hpp>
#include <csignal>
#include <cstring>
#include <sys/resource.h>
#include <sys/socket.h>

#include "daemon/log.h"

namespace obregd {

namespace {

constexpr auto AcceptPause = std::chrono::milliseconds(100);
constexpr auto MemoryPause = std::chrono::milliseconds(10);
constexpr int AcceptsInARow = 64;
constexpr auto RefusalLogPause = std::chrono::seconds(10);
constexpr int LooksPerArrival = 4;
constexpr auto MaxWatch = std::chrono::microseconds(50);
constexpr auto LastSendTime = std::chrono::seconds(1);

Peer peerOf(int fd)
{
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        throw std::system_error(errno, std::generic_category(), "SO_PEERCRED");
    return {credentials.uid, credentials.pid};
}

Limits completed(Limits limits)
{
    rlimit descriptors{};
    if (limits.maxPerUser == 0)
        limits.maxPerUser = getrlimit(RLIMIT_NOFILE, &descriptors) == 0 ? descriptors.rlim_cur / 2 : 1;
    return limits;
}

/// Does what must be done, waiting as long as there is no memory for it. Not on the server's thread.
template <class Action>
void insist(Action action)
{
    for (;;) {
        try {
            return action();
        } catch (const std::bad_alloc&) {
            std::this_thread::sleep_for(MemoryPause);
        }
    }
}

} // namespace

Server::Server(int listeningDescriptor, Store& store, WritableStore& writableStore, const Limits& limits)
    : m_store(store), m_limits(completed(limits)), m_work(m_io.get_executor()),
      m_acceptor(m_io, asio::local::stream_protocol(), listeningDescriptor), m_signals(m_io, SIGTERM, SIGINT),
      m_deadline(m_io), m_pause(m_io), m_look(m_io), m_committer(writableStore, committerCallbacks())
{
    m_acceptor.non_blocking(true);
    m_acceptor.set_option(asio::socket_base::enable_connection_aborted(true)); // else Asio would wait for the next
    m_store.keepState(true);
}

/// The committer's news, brought to the server's thread in their order.
Committer::Callbacks Server::committerCallbacks()
{
    Committer::Callbacks callbacks;
    callbacks.answered = [this](Batch&& batch) {
        std::shared_ptr<Batch> pAnswered;
        insist([&] { pAnswered = std::make_shared<Batch>(); });
        pAnswered->swap(batch);
        insist([&] {
            asio::post(m_io, [this, pAnswered] {
                Batch answered; // the last of the jobs, and of the connections that they hold, goes on this thread
                answered.swap(*pAnswered);
                answer(answered);
            });
        });
    };
    callbacks.tidying = [this](bool begins) {
        insist([&] { asio::post(m_io, [this, begins] { m_store.keepState(!begins); }); });
    };
    callbacks.ended = [this] { insist([&] { asio::post(m_io, [this] { end(); }); }); };
    return callbacks;
}

void Server::run()
{
    m_signals.async_wait([this](const asio::error_code& error, int signal) {
        if (!error) {
            logLine(LOG_NOTICE, "signal %d: stopping", signal);
            if (m_onStop)
                m_onStop();
            stop();
        }
    });
    waitForClients();
    for (;;) {
        try {
            work();
            return;
        } catch (const std::bad_alloc&) {
            logLine(LOG_ERR, "out of memory; what was being done is given up");
        }
    }
}

/// Serves until nothing is left to be done. Who has just been answered often asks again sooner than this thread could
/// fall asleep and be woken: so it watches for a while, as long as that pays.
void Server::work()
{
    while (m_io.run_one() != 0)
        while (m_worthWatching.now()) {
            if (m_io.poll_one() != 0) // it was there already, which tells nothing about waiting
                continue;
            if (!m_worthWatching.result(pollFor(MaxWatch)))
                break;
        }
}

/// Does the next thing to be done if it comes within that time; whether it came.
bool Server::pollFor(std::chrono::microseconds time)
{
    const auto end = std::chrono::steady_clock::now() + time;
    do
        if (m_io.poll_one() != 0)
            return true;
    while (std::chrono::steady_clock::now() < end);
    return false;
}

void Server::waitForClients()
{
    const auto accept = [this](const asio::error_code& error) {
        if (!error)
            acceptClients();
    };
    m_acceptor.async_wait(asio::socket_base::wait_read,
                          asio::bind_allocator(Reserve::Allocator<char>(m_acceptReserve), accept));
}

void Server::acceptClients()
{
    for (int i = 0; i < AcceptsInARow; ++i) {
        asio::error_code error;
        try {
            Connection::Socket socket = m_acceptor.accept(error);
            if (!error) {
                begin(std::move(socket));
                continue;
            }
        } catch (const std::bad_alloc&) {
            error = asio::error::no_memory;
        }
        if (error == asio::error::would_block) { // nobody is left waiting
            m_acceptFailing = false;
            break;
        }
        if (error != asio::error::interrupted && error != asio::error::connection_aborted)
            return pauseAccepting(error);
    }
    waitForClients();
}

void Server::pauseAccepting(const asio::error_code& error)
{
    if (!m_acceptFailing) // one line in the log, however many wait and however long
        logLine(LOG_ERR, "cannot accept connections: %s; trying again", std::strerror(error.value()));
    m_acceptFailing = true;
    m_pause.expires_after(AcceptPause);
    const auto goOn = [this](const asio::error_code& cancelled) {
        if (!cancelled)
            acceptClients();
    };
    try {
        m_pause.async_wait(asio::bind_allocator(Reserve::Allocator<char>(m_pauseReserve), goOn));
    } catch (const std::bad_alloc&) {
        std::this_thread::sleep_for(MemoryPause);
        waitForClients();
    }
}

void Server::begin(Connection::Socket socket)
{
    try {
        const Peer peer = peerOf(socket.native_handle());
        if (!admits(peer))
            return;
        ConnectionHost& host = *this;
        const auto pConnection = std::make_shared<Connection>(host, std::move(socket), peer);
        m_connections.insert(pConnection.get());
        ++m_users[peer.uid].connections;
        pConnection->goOn();
        lookForOverdue();
    } catch (const std::exception& failure) {
        logLine(LOG_ERR, "a connection cannot be served: %s", failure.what());
    }
}

/// False, with a line in the log now and then, when the user has as many connections as he may have.
bool Server::admits(const Peer& peer)
{
    User& user = m_users[peer.uid];
    if (user.connections < m_limits.maxPerUser)
        return true;
    const auto now = std::chrono::steady_clock::now();
    ++user.refused;
    if (user.logged && now - *user.logged < RefusalLogPause)
        return false;
    logLine(LOG_WARNING,
            "uid %u, process %d: one connection too many; the limit (--max-per-user) is %zu; refused, %zu in all since "
            "the last such line",
            peer.uid, peer.pid, m_limits.maxPerUser, user.refused);
    user.refused = 0;
    user.logged = now;
    return false;
}

/// Cuts off who has begun a request and does not end it; again and again, as long as there are clients.
void Server::lookForOverdue()
{
    if (m_looking || m_connections.empty() || m_stopping)
        return;
    m_look.expires_after(std::chrono::milliseconds(1000 * m_limits.maxArrival / LooksPerArrival));
    const auto look = [this](const asio::error_code& cancelled) {
        m_looking = false;
        if (cancelled)
            return;
        const auto now = std::chrono::steady_clock::now();
        for (Connection* pConnection : m_connections)
            if (pConnection->isOverdue(now))
                pConnection->cutOff("has begun a request and not ended it; the limit (--max-arrival) is " +
                                    std::to_string(m_limits.maxArrival) + " s");
        lookForOverdue();
    };
    m_look.async_wait(asio::bind_allocator(Reserve::Allocator<char>(m_lookReserve), look));
    m_looking = true;
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
    for (const WriteJob& job : batch)
        job.pConnection->goOn();
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
    const auto user = m_users.find(connection.peer().uid);
    if (m_connections.erase(&connection) != 0 && --user->second.connections == 0 && user->second.refused == 0)
        m_users.erase(user);
    if (m_stopping && m_connections.empty())
        m_deadline.cancel();
}

void Server::every(std::chrono::milliseconds interval, std::function<void()> chore)
{
    m_chores.push_back({interval, std::move(chore), asio::steady_timer(m_io)});
    wait(m_chores.back());
}

void Server::wait(Chore& chore)
{
    chore.timer.expires_after(chore.interval);
    chore.timer.async_wait([this, &chore](const asio::error_code& cancelled) {
        if (cancelled)
            return;
        chore.work();
        wait(chore);
    });
}

void Server::listenOn(int descriptor)
{
    acceptClients();
    m_acceptor.close();
    m_acceptor.assign(asio::local::stream_protocol(), descriptor);
    m_acceptor.non_blocking(true);
    m_acceptor.set_option(asio::socket_base::enable_connection_aborted(true));
    waitForClients();
}

void Server::stop()
{
    m_chores.clear();
    m_stopping = true;
    m_acceptor.close();
    m_pause.cancel();
    m_look.cancel();
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
