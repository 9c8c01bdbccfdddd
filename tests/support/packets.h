// Packets and Unix sockets, for both ends of a test's connections.
#ifndef OBREG_TESTS_PACKETS_H
#define OBREG_TESTS_PACKETS_H

#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

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

/// The next two: false when the connection has ended.
inline bool sendAll(int fd, const std::string& bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        sent += static_cast<size_t>(count);
    }
    return true;
}

inline bool receiveAll(int fd, std::string& bytes)
{
    return bytes.empty() || recv(fd, bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size());
}

/// Something has come, the connection's end included.
inline bool hasMore(int fd, int milliseconds)
{
    pollfd poller{fd, POLLIN, 0};
    return poll(&poller, 1, milliseconds) > 0;
}

#endif
