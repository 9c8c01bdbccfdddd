// Packets and Unix sockets, for both ends of a test's connections.
#ifndef OBREG_TESTS_PACKETS_H
#define OBREG_TESTS_PACKETS_H

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/channelproto.h"

inline sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

inline std::string packetHeader(uint32_t reqId, int length)
{
    std::string text(PktHdrLength, '\0');
    ChannelProto::buildReqDataPktHdr(reqId, length, text.data());
    return text;
}

inline std::string packet(uint32_t reqId, const std::string& payload)
{
    return packetHeader(reqId, static_cast<int>(payload.size())) + payload;
}

inline std::string errorPacket(uint32_t reqId)
{
    return "Type02" + packetHeader(reqId, 0x10).substr(6); // the length of an error packet means nothing
}

/// A socket at that path, in the place of what was there. Not close-on-exec unless the type says so.
inline int boundSocket(int type, const std::string& path)
{
    const int fd = socket(AF_UNIX, type, 0);
    const sockaddr_un address = addressOf(path);
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        throw std::runtime_error(path + ": " + std::strerror(errno));
    return fd;
}

/// One end of a connection, which it closes. Sending and receiving give false when the connection has ended.
class PacketSocket {
public:
    struct Packet {
        uint32_t id = 0;
        std::string payload;
        bool isError = false;
    };

    explicit PacketSocket(int fd) : m_fd(fd) {}
    ~PacketSocket() { close(m_fd); }
    PacketSocket(const PacketSocket&) = delete;
    PacketSocket& operator=(const PacketSocket&) = delete;

    bool send(const std::string& bytes) const
    {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t count = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            sent += static_cast<size_t>(count);
        }
        return true;
    }
    bool reply(uint32_t id, const std::string& payload) const { return send(packet(id, payload)); }

    bool receive(Packet& packet) const
    {
        std::string header(PktHdrLength, '\0');
        int length = 0;
        if (!fill(header) || !ChannelProto::getReqIdAndPayloadLength(header.data(), PktHdrLength, &packet.id, &length))
            return false;
        packet.isError = ChannelProto::getPktType(header.front()) == ChannelProto::ReqErrorCarrierPacketType;
        packet.payload.resize(packet.isError ? 0 : static_cast<size_t>(length));
        return fill(packet.payload);
    }

    /// Something has come, the connection's end included.
    bool hasMore(int milliseconds) const
    {
        pollfd poller{m_fd, POLLIN, 0};
        return poll(&poller, 1, milliseconds) > 0;
    }
    void hangUp() const { shutdown(m_fd, SHUT_RDWR); } // any thread

protected:
    const int m_fd;

private:
    bool fill(std::string& bytes) const
    {
        return bytes.empty() ||
               recv(m_fd, bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size());
    }
};

#endif
