#include "support/scripted_daemon.h"

#include <csignal>
#include <cstring>
#include <stdexcept>

#include <unistd.h>

ScriptedDaemon::Peer::~Peer() { close(m_fd); }

bool ScriptedDaemon::Peer::receive(Request& request)
{
    std::string header(PktHdrLength, '\0');
    int length = 0;
    if (!receiveAll(m_fd, header) ||
        !ChannelProto::getReqIdAndPayloadLength(header.data(), PktHdrLength, &request.id, &length))
        return false;
    request.payload.resize(static_cast<size_t>(length));
    return receiveAll(m_fd, request.payload);
}

void ScriptedDaemon::Peer::error(uint32_t id)
{
    send("Type02" + packetHeader(id, 0x10).substr(6)); // the length of an error packet means nothing
}

void ScriptedDaemon::Peer::hangUp() { shutdown(m_fd, SHUT_RDWR); }

ScriptedDaemon::ScriptedDaemon(Script script)
    : m_script(std::move(script)), m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const sockaddr_un address = addressOf(FixedSocketPath);
    unlink(FixedSocketPath);
    if (bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(m_listener, 64) != 0)
        throw std::runtime_error(strerror(errno));
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
    unlink(FixedSocketPath);
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
