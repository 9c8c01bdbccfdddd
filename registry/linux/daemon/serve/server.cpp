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
constexpr int LooksPerArrival = 4;
constexpr auto MaxWatch = std::chrono::microseconds(50);
constexpr auto LastReadTime = std::chrono::seconds(1);
constexpr auto LastSendTime = std::chrono::seconds(1);
constexpr size_t OwnDescriptors = 64; // what the daemon has open besides connections, at most

Peer peerOf(int fd)
{
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        throw std::system_error(errno, std::generic_category(), "SO_PEERCRED");
    return {credentials.uid, credentials.pid};
}

Descriptors descriptorsToHave()
{
    rlimit limit{};
    const size_t all = getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 1024;
    const size_t connections = all - std::min(all / 2, OwnDescriptors);
    return {connections, connections - std::max(connections / 32, size_t{1})};
}

Limits completed(Limits limits, const Descriptors& descriptors)
{
    if (limits.maxPerUser == 0)
        limits.maxPerUser = descriptors.all / 2;
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

Server::Server(int listeningDescriptor, Store& store, WritableStore& writableStore, const Limits& limits,
               WriteGuard* pGuard, SharedTrees* pShared)
    : m_store(store), m_descriptors(descriptorsToHave()), m_limits(completed(limits, m_descriptors)),
      m_work(m_io.get_executor()), m_acceptor(m_io), m_signals(m_io, SIGTERM, SIGINT), m_deadline(m_io),
      m_lastReads(m_io), m_pause(m_io), m_teller(m_io, store, m_limits.maxWatches),
      m_readers(store.path(), m_reads, m_limits.maxStatements,
                [this](JobPtr pJob) {
                    JobList jobs;
                    jobs.append(std::move(pJob));
                    postAnswers(std::move(jobs));
                }),
      m_committer(writableStore, pGuard, pShared, m_writes, committerCallbacks())
{
    listenOn(listeningDescriptor);
    m_store.setBrief(true);
    m_store.keepState(true);
    every(std::chrono::milliseconds(1000 * m_limits.maxArrival / LooksPerArrival), [this] { lookForOverdue(); });
}

void Server::listenOn(int descriptor)
{
    if (m_stopping) {
        close(descriptor);
        return;
    }
    if (m_acceptor.is_open())
        m_acceptor.close();
    m_acceptor.assign(asio::local::stream_protocol(), descriptor);
    m_acceptor.non_blocking(true);
    m_acceptor.set_option(asio::socket_base::enable_connection_aborted(true)); // else Asio would wait for the next
    waitForClients();
}

/// Brings something to the server's thread, however long there is no memory for it.
template <class Action>
void Server::postSurely(Action action)
{
    insist([&] { asio::post(m_io, action); });
}

void Server::postAnswers(JobList&& jobs, std::vector<Touched>&& touched)
{
    struct News {
        JobList jobs;
        std::vector<Touched> touched;
    };
    std::shared_ptr<News> pNews;
    insist([&] { pNews = std::make_shared<News>(); });
    pNews->jobs.append(std::move(jobs));
    pNews->touched = std::move(touched);
    postSurely([this, pNews] {
        JobList answered(std::move(pNews->jobs)); // the last of the jobs, and of their connections, goes on this thread
        m_store.refresh();                        // who has been answered, and whom he tells, sees what was written
        m_teller.wake(pNews->touched);
        answer(answered);
    });
}

/// The committer's news, brought to the server's thread in their order.
Committer::Callbacks Server::committerCallbacks()
{
    Committer::Callbacks callbacks;
    callbacks.answered = [this](JobList&& jobs, std::vector<Touched>&& touched) {
        postAnswers(std::move(jobs), std::move(touched));
    };
    callbacks.tidying = [this](bool begins) {
        m_reads.hold(begins);
        postSurely([this, begins] {
            m_tidying += begins ? 1 : -1;
            m_store.keepState(m_tidying == 0);
        });
    };
    callbacks.ended = [this] { postSurely([this] { end(); }); };
    return callbacks;
}

void Server::every(std::chrono::milliseconds interval, std::function<void()> chore)
{
    waitFor(m_chores.emplace_back(m_io, m_choreReserves.emplace_back(), interval, std::move(chore)));
}

void Server::waitFor(Chore& chore)
{
    chore.timer.expires_after(chore.interval);
    const auto act = [this, &chore](const asio::error_code& cancelled) {
        if (cancelled || m_ending)
            return;
        waitFor(chore);
        try {
            chore.action();
        } catch (const std::exception& failure) {
            if (const auto leftOut = m_choreLog.allow(std::chrono::steady_clock::now()))
                logLine(LOG_ERR, "what is done from time to time failed: %s (%zu such lines were left out)",
                        failure.what(), *leftOut);
        }
    };
    chore.timer.async_wait(asio::bind_allocator(Reserve::Allocator<char>(chore.reserve), act));
}

void Server::run()
{
    waitForSignal();
    for (;;) {
        try {
            work();
            return;
        } catch (const std::bad_alloc&) {
            logLine(LOG_ERR, "out of memory; what was being done is given up");
        }
    }
}

void Server::waitForSignal()
{
    const auto act = [this](const asio::error_code& error, int signal) {
        if (error)
            return;
        if (m_stopping) {
            logLine(LOG_WARNING, "signal %d again: ending at once; what was not answered may not be stored", signal);
            flushLog(std::chrono::milliseconds(100));
            std::_Exit(128 + signal);
        }
        logLine(LOG_NOTICE, "signal %d: stopping", signal);
        stop();
        waitForSignal();
    };
    m_signals.async_wait(asio::bind_allocator(Reserve::Allocator<char>(m_signalReserve), act));
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

void Server::wantsTurn(Turns<Connection>::Place& place)
{
    m_turns.enter(place);
    giveTurns();
}

/// One turn at a time, so that what comes in meanwhile gets in line.
void Server::giveTurns()
{
    if (m_givingTurns || m_turns.empty())
        return;
    const auto give = [this] {
        m_givingTurns = false;
        giveTurn();
    };
    asio::post(m_io, asio::bind_allocator(Reserve::Allocator<char>(m_turnReserve), give));
    m_givingTurns = true;
}

void Server::giveTurn()
{
    Connection* const pNext = m_turns.next();
    m_turns.passOn(pNext->turn(), false);
    giveTurns();
    pNext->takeTurn();
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
    if (m_stopping)
        return;
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
        const std::shared_ptr<User> pUser = m_users.of(peer.uid);
        if (!admits(*pUser, peer.pid))
            return;
        ConnectionHost& host = *this;
        const auto pConnection = std::make_shared<Connection>(host, std::move(socket), pUser, peer.pid);
        m_connections.insert(pConnection.get());
        pConnection->begin();
    } catch (const std::exception& failure) {
        logLine(LOG_ERR, "a connection cannot be served: %s", failure.what());
    }
}

/// Whether the user may have one more connection. When all are taken, the user who has most makes room, unless that is
/// the one who asks.
bool Server::admits(User& user, pid_t process)
{
    if (user.connections.size() >= m_limits.maxPerUser) {
        warn(user, process, Cause::TooMany, "one connection too many; the limit (--max-per-user) is %zu; refused",
             m_limits.maxPerUser);
        count(*user.pCounts, UserFigure::Refused);
        return false;
    }
    if (m_connections.size() < (user.trusted ? m_descriptors.all : m_descriptors.forOthers))
        return true;
    User* const pGreatest = m_users.greatest([](const User& other) { return other.connections.size(); });
    if (pGreatest == nullptr || pGreatest->connections.size() <= user.connections.size() + 1) {
        warn(user, process, Cause::TooMany,
             "no descriptor is left for one more connection (LimitNOFILE=, ulimit -n); refused");
        count(*user.pCounts, UserFigure::Refused);
        return false;
    }
    (*pGreatest->connections.begin())
        ->cutOff(Cause::TooMany, "has most of all connections, and another user needs one");
    return true;
}

/// Cuts off who has begun a request and does not end it.
void Server::lookForOverdue()
{
    const auto now = Connection::Clock::now();
    const std::vector<Connection*> all(m_connections.begin(), m_connections.end());
    for (Connection* pConnection : all)
        if (pConnection->isOverdue(now))
            pConnection->cutOff(Cause::Overdue,
                                "has begun a request and not ended it; the limit (--max-arrival) is %u s",
                                m_limits.maxArrival);
}

void Server::answer(JobList& jobs)
{
    JobList answered;
    while (!jobs.empty()) {
        JobPtr pJob = jobs.pop();
        Connection& connection = *pJob->pConnection;
        const std::shared_ptr<Connection> self = pJob->pConnection;
        try {
            if (pJob->needsWriter || pJob->wait) {
                connection.handOn(std::move(pJob));
                continue;
            }
            connection.answer(*pJob);
        } catch (const std::exception& failure) {
            connection.cutOff(Cause::NoMemory, "%s", failure.what());
        }
        if (pJob != nullptr)
            answered.append(std::move(pJob));
    }
    for (const Job* pJob = answered.first(); pJob != nullptr; pJob = pJob->pNext.get())
        pJob->pConnection->goOn();
}

size_t Server::writeShare() const
{
    return std::min(m_limits.maxHeldPerUser, m_limits.maxHeld / static_cast<size_t>(std::max(m_writers, 1))) / 2;
}

void Server::holds(User& user, ptrdiff_t more)
{
    m_held += static_cast<size_t>(more);
    user.held += static_cast<size_t>(more);
    count(Figure::BytesHeld, more);
    count(*user.pCounts, UserFigure::Held, more);
    if (more <= 0)
        return;
    if (m_held > m_limits.maxHeld) {
        // Of those who are gone only writes are left, which end by themselves.
        User* const pGreatest =
            m_users.greatest([](const User& other) { return other.connections.empty() ? size_t{0} : other.held; });
        if (pGreatest != nullptr)
            makeRoom(*pGreatest,
                     "holds most, and its user more than others, of what the daemon may hold; the limit (--max-held)",
                     m_limits.maxHeld);
    }
    if (user.held > m_limits.maxHeldPerUser)
        makeRoom(user, "holds most of what its user may make the daemon hold; the limit (--quota-held)",
                 m_limits.maxHeldPerUser);
}

/// Cuts off the user's connection that holds most.
void Server::makeRoom(User& user, const char* pReason, size_t limit)
{
    const auto most = std::max_element(user.connections.begin(), user.connections.end(),
                                       [](const Connection* a, const Connection* b) { return a->held() < b->held(); });
    if (most != user.connections.end() && (*most)->held() != 0)
        (*most)->cutOff(Cause::Held, "%s is %zu", pReason, limit);
}

void Server::closed(Connection& connection)
{
    m_connections.erase(&connection);
    if (m_stopping && m_connections.empty())
        m_deadline.cancel();
}

void Server::stop()
{
    m_stopping = true;
    try {
        if (m_onStop)
            m_onStop();
    } catch (const std::exception& failure) {
        logLine(LOG_ERR, "%s", failure.what());
    }
    m_acceptor.close();
    m_pause.cancel();
    for (Connection* pConnection : m_connections)
        pConnection->stopReading();
    m_teller.stop();
    const auto finish = [this](const asio::error_code& cancelled) {
        if (!cancelled)
            finishJobs();
    };
    m_lastReads.expires_after(LastReadTime);
    m_lastReads.async_wait(asio::bind_allocator(Reserve::Allocator<char>(m_stopReserve), finish));
    countLongReads(0);
}

void Server::countLongReads(ptrdiff_t more)
{
    m_longReads += more;
    if (m_stopping && m_longReads == 0)
        finishJobs();
}

/// No more jobs come, or none that is waited for.
void Server::finishJobs()
{
    m_lastReads.cancel();
    m_readers.interrupt();
    m_reads.finish();
    m_writes.finish();
}

/// The last write has been answered; whatever its client has not taken soon is lost to it.
void Server::end()
{
    m_ending = true;
    m_work.reset();
    m_signals.cancel();
    m_signals.clear(); // the next one ends the process
    for (Chore& chore : m_chores)
        chore.timer.cancel();
    if (m_connections.empty())
        return;
    const auto closeAll = [this](const asio::error_code& error) {
        while (!error && !m_connections.empty())
            (*m_connections.begin())->close();
    };
    m_deadline.expires_after(LastSendTime);
    m_deadline.async_wait(asio::bind_allocator(Reserve::Allocator<char>(m_endReserve), closeAll));
}

} // namespace obregd
