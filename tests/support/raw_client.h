// A client of the daemon that speaks packets and hides nothing, for what the library would not do.
#ifndef OBREG_TESTS_RAW_CLIENT_H
#define OBREG_TESTS_RAW_CLIENT_H

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/time.h>

#include "common/msgproto.h"
#include "obreg/roots.h"
#include "support/encoded.h"
#include "support/packets.h"

inline SetValueReqMsg setRequest(HANDLE key, const std::string& name, const std::string& data)
{
    return {key, name.c_str(), REG_BINARY, data.data(), static_cast<UINT32>(data.size())};
}

inline std::string setText(HANDLE key, const std::string& name, const std::string& data)
{
    return encoded(setRequest(key, name, data));
}

/// Its calls throw std::runtime_error when the daemon has ended the connection.
class RawClient : private PacketSocket {
public:
    explicit RawClient(const std::string& path) : PacketSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un address = addressOf(path);
        if (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot connect: " + std::string(std::strerror(errno)));
        const timeval patience{10, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }

    using PacketSocket::hasMore;
    void endSending() const { shutdown(m_fd, SHUT_WR); }

    void send(const std::string& bytes) const
    {
        if (!PacketSocket::send(bytes))
            throw std::runtime_error("the connection ended in a send");
    }

    /// The next packet's id and payload; no payload for an error packet.
    std::pair<uint32_t, std::optional<std::string>> receive() const
    {
        Packet packet;
        if (!PacketSocket::receive(packet))
            throw std::runtime_error("the connection ended in a receive");
        return {packet.id, packet.isError ? std::nullopt : std::optional(packet.payload)};
    }

    template <class Response, class Request>
    std::unique_ptr<Response> call(const Request& request)
    {
        send(packet(7, encoded(request)));
        const std::string text = receive().second.value();
        return std::unique_ptr<Response>(Response::deserialize(text.data(), static_cast<int>(text.size())));
    }

    HANDLE create(const char* pPath, HANDLE parent = HKEY_LOCAL_MACHINE)
    {
        return call<CreateKeyRespMsg>(CreateKeyReqMsg(parent, pPath, 0, 0))->m_keyHandle;
    }
    REGSTATUS set(HANDLE key, const std::string& name, const std::string& data)
    {
        return call<SetValueRespMsg>(setRequest(key, name, data))->m_status;
    }
    std::string query(HANDLE key, const std::string& name)
    {
        const auto value = call<QueryValueRespMsg>(QueryValueReqMsg(key, name.c_str()));
        return value->m_status == 0 ? std::string(value->m_pValueData, value->m_valueDataLen) : "(none)";
    }
};

#endif
