// A daemon that does what a test tells it to: every connection runs the test's script on a thread of its own.
#ifndef OBREG_TESTS_SCRIPTED_DAEMON_H
#define OBREG_TESTS_SCRIPTED_DAEMON_H

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "common/msgproto.h"
#include "support/encoded.h"
#include "support/packets.h"

inline constexpr char FixedSocketPath[] = "/var/opt/quorlin/ombrel/obregd/reg-socket";

class ScriptedDaemon {
public:
    using Peer = PacketSocket; ///< one client's connection, as a script sees it
    using Request = Peer::Packet;
    using Script = std::function<void(Peer&)>;
    /// Gives the reply to a request's payload.
    using Answer = std::function<std::string(const std::string&)>;

    /// Listens at once.
    explicit ScriptedDaemon(Script script);
    /// Cuts every connection and removes the socket.
    ~ScriptedDaemon();

    static Script answering(Answer answer);

    int connections() const { return m_connections; }

private:
    struct Connection {
        explicit Connection(int fd) : peer(fd) {}
        Peer peer;
        std::atomic<bool> ended{false};
        std::thread thread;
    };

    void acceptAll();

    const Script m_script;
    const int m_listener;
    std::atomic<int> m_connections{0};
    std::list<Connection> m_open; // the acceptor's, until it has ended
    std::thread m_acceptor;
};

#endif
