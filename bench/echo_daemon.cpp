// A daemon that does next to nothing, to measure clients against: a query is answered with as many bytes as the value's
// name says (contender.h), everything else with success. One thread for every connection, which sends a reply before it
// reads on: good only for clients that have few bytes in flight or one request at a time.
//
//   echo_daemon SOCKET
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/channelproto.h"
#include "common/msgproto.h"
#include "common/wiretext.h"

int CDebugLevel = 0;

namespace {

/// Receives ahead; what is asked for lies together.
class Input {
public:
    explicit Input(int socket) : m_socket(socket) {}

    /// The next `length` bytes, at most half the buffer, not taken yet; null when the connection has ended.
    const char* peek(size_t length)
    {
        if (m_buffer.size() - m_begin < length) {
            std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
            m_end -= m_begin;
            m_begin = 0;
        }
        while (m_end - m_begin < length) {
            const ssize_t count = recv(m_socket, m_buffer.data() + m_end, m_buffer.size() - m_end, 0);
            if (count <= 0)
                return nullptr;
            m_end += static_cast<size_t>(count);
        }
        return m_buffer.data() + m_begin;
    }

    void take(size_t length)
    {
        while (length > m_end - m_begin) {
            length -= m_end - m_begin;
            m_begin = m_end = 0;
            if (peek(1) == nullptr)
                return;
        }
        m_begin += length;
    }

private:
    static constexpr size_t BufferSize = size_t{256} * 1024;

    const int m_socket;
    std::vector<char> m_buffer = std::vector<char>(BufferSize);
    size_t m_begin = 0;
    size_t m_end = 0;
};

/// A reply with its header, made once for every size; the id is put in for each request.
std::string& replyTo(std::string_view request)
{
    thread_local std::map<size_t, std::string> queryReplies;
    thread_local std::string success;
    const bool query = request.substr(0, QueryValueReqMsgTypeS.size()) == QueryValueReqMsgTypeS;
    const size_t name = query ? request.find("Size") : std::string_view::npos;
    const size_t bytes = name != std::string_view::npos ? std::strtoul(request.data() + name + 4, nullptr, 10) : 0;
    std::string& reply = query ? queryReplies[bytes] : success;
    if (reply.empty()) {
        std::string text = "Status =00000000\r\n";
        if (query)
            text += "ValueType =00000003\r\n";
        text += "\r\n" + std::string(bytes, 'e');
        reply.resize(PktHdrLength);
        ChannelProto::buildReqDataPktHdr(0, static_cast<int>(text.size()), reply.data());
        reply += text;
    }
    return reply;
}

bool sendAll(int socket, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t sent = send(socket, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

void serve(int socket)
{
    constexpr size_t idAt = 18;
    constexpr size_t enoughForTheName = 128;
    Input input(socket);
    while (const char* const pHeader = input.peek(PktHdrLength)) {
        uint32_t id = 0;
        int length = 0;
        if (!ChannelProto::getReqIdAndPayloadLength(pHeader, PktHdrLength, &id, &length) || length <= 0)
            break;
        input.take(PktHdrLength);
        const auto payloadLength = static_cast<size_t>(length);
        const size_t textLength = payloadLength < enoughForTheName ? payloadLength : enoughForTheName;
        const char* const pText = input.peek(textLength);
        if (pText == nullptr)
            break;
        std::string& reply = replyTo({pText, textLength});
        wiretext::putHex(reply.data() + idAt, id);
        input.take(payloadLength);
        if (!sendAll(socket, reply))
            break;
    }
    close(socket);
}

} // namespace

int main(int argc, char** argv)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (argc != 2)
        return 2;
    std::string(argv[1]).copy(address.sun_path, sizeof(address.sun_path) - 1);
    unlink(argv[1]);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(listener, 64) != 0) {
        perror(argv[1]);
        return 1;
    }
    for (int client; (client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) != -1;)
        std::thread(serve, client).detach();
}
