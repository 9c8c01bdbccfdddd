#include "support/scripted_daemon.h"

ScriptedDaemon::ScriptedDaemon(Script script)
    : m_script(std::move(script)), m_listener(boundSocket(SOCK_STREAM | SOCK_CLOEXEC, FixedSocketPath))
{
    listen(m_listener, 64);
    m_acceptor = std::thread([this] { acceptAll(); });
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
