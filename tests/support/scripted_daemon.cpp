#include "support/scripted_daemon.h"

#include <csignal>
#include <cstring>
#include <stdexcept>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/channelproto.h"

namespace {

bool receiveAll(int fd, char* pBuff, size_t length)
{
    return length == 0 || recv(fd, pBuff, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

} // namespace

ScriptedDaemon::Peer::~Peer() { close(m_fd); }

bool ScriptedDaemon::Peer::receive(Request& request)
{
    char header[PktHdrLength];
    int length = 0;
    if (!receiveAll(m_fd, header, sizeof(header)) ||
        !ChannelProto::getReqIdAndPayloadLength(header, PktHdrLength, &request.id, &length))
        return false;
    request.payload.resize(static_cast<size_t>(length));
    return receiveAll(m_fd, request.payload.data(), request.payload.size());
}

bool ScriptedDaemon::Peer::hasMore(int milliseconds) const
{
    pollfd poller = {m_fd, POLLIN, 0};
    return poll(&poller, 1, milliseconds) > 0;
}

void ScriptedDaemon::Peer::send(const std::string& bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return;
        sent += static_cast<size_t>(count);
    }
}

std::string ScriptedDaemon::Peer::packet(uint32_t id, const std::string& payload)
{
    std::string header(PktHdrLength, '\0');
    ChannelProto::buildReqDataPktHdr(id, static_cast<int>(payload.size()), header.data());
    return header + payload;
}

void ScriptedDaemon::Peer::error(uint32_t id)
{
    std::string header(PktHdrLength, '\0');
    ChannelProto::buildReqErrorPktHdr(id, 0x10, header.data()); // the length of an error packet means nothing
    send(header);
}

void ScriptedDaemon::Peer::hangUp() { shutdown(m_fd, SHUT_RDWR); }

ScriptedDaemon::ScriptedDaemon(Script script, const char* pPath)
    : m_path(pPath), m_script(std::move(script)), m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, pPath, sizeof(address.sun_path) - 1);
    unlink(pPath);
    if (bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(m_listener, 64) != 0)
        throw std::runtime_error(m_path + ": " + strerror(errno));
    // The process's signals are not for the daemon's threads: they would cut its receives short.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    m_acceptor = std::thread([this] { acceptAll(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void ScriptedDaemon::acceptAll()
{
    for (;;) {
        const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        ++m_connections;
        m_open.remove_if([](Connection& connection) {
            const bool ended = connection.ended;
            if (ended)
                connection.thread.join();
            return ended;
        });
        Connection& connection = m_open.emplace_back(fd);
        connection.thread = std::thread([this, &connection] {
            m_script(connection.peer);
            connection.peer.hangUp();
            connection.ended = true;
        });
    }
}

ScriptedDaemon::~ScriptedDaemon()
{
    shutdown(m_listener, SHUT_RDWR); // ends accept once what waits there is taken
    m_acceptor.join();
    close(m_listener);
    unlink(m_path.c_str());
    for (Connection& connection : m_open) {
        connection.peer.hangUp();
        connection.thread.join();
    }
}

ScriptedDaemon::Script ScriptedDaemon::answering(Answer answer)
{
    return [answer = std::move(answer)](Peer& peer) {
        for (Request request; peer.receive(request);)
            peer.reply(request.id, answer(request.payload));
    };
}
