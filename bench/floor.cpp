// The floor: the least that a client of this protocol does when it is written by hand for one request, with the same
// threads and system calls as the library. It checks little, survives nothing and never frees: what the library takes
// longer is the price of being one.
#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

#include "contender.h"

namespace {

constexpr size_t HeaderLength = 55;
constexpr size_t IdAt = 18;
constexpr size_t LengthAt = 43;
constexpr size_t MaxCallers = 256; // a request's id is its caller's number

void putHex(char* pOut, uint32_t value)
{
    for (int i = 7; i >= 0; --i, value >>= 4)
        pOut[i] = "0123456789ABCDEF"[value & 15];
}

uint32_t getHex(const char* pText)
{
    uint32_t value = 0;
    for (int i = 0; i < 8; ++i) {
        const auto c = static_cast<unsigned char>(pText[i]);
        value = value << 4 | ((c & 15) + (c >> 6) * 9U);
    }
    return value;
}

struct Caller {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t answered = PTHREAD_COND_INITIALIZER;
    bool done = false;
    bool asleep = false;
    std::vector<char> reply; // keeps its memory
    size_t replyLength = 0;
    std::vector<char> request;
    size_t requestLength = 0;
    std::vector<char> value;
};

class Floor : public Contender {
public:
    explicit Floor(const Load& load) : m_load(load)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        load.address.copy(address.sun_path, sizeof(address.sun_path) - 1);
        m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        require(connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "no echo daemon");
        std::thread([this] { read(); }).detach();
    }

    std::function<void()> newCall() override
    {
        pthread_mutex_lock(&m_channel);
        const uint32_t number = m_callers++;
        pthread_mutex_unlock(&m_channel);
        require(number < MaxCallers, "too many threads");
        Caller& caller = m_caller[number];
        caller.request.resize(128 + m_load.bytes);
        caller.value.assign(m_load.bytes, 'v');
        return [this, number, &caller] { call(number, caller); };
    }

private:
    void write(Caller& caller) const
    {
        char* p = caller.request.data();
        const auto put = [&p](std::string_view text) {
            std::memcpy(p, text.data(), text.size());
            p += text.size();
        };
        put(m_load.set ? "Type09\r\nKeyHandle =0x" : "Type08\r\nKeyHandle =0x");
        for (int shift = 28; shift >= 0; shift -= 4)
            *p++ = "0123456789abcdef"[0x5a5a5a5aU >> shift & 15];
        if (m_load.set)
            put("\r\nValueType =00000003");
        put("\r\nValueName =");
        put(m_name);
        put("\r\n\r\n");
        if (m_load.set)
            put({caller.value.data(), caller.value.size()});
        else
            put({"\0\0\0\0\0\0\0\0", 8});
        caller.requestLength = static_cast<size_t>(p - caller.request.data());
    }

    void send(const char* pHeader, const Caller& caller) const
    {
        iovec parts[2] = {{const_cast<char*>(pHeader), HeaderLength},
                          {const_cast<char*>(caller.request.data()), caller.requestLength}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = 2;
        for (size_t left = HeaderLength + caller.requestLength;;) {
            const ssize_t sent = sendmsg(m_socket, &message, MSG_NOSIGNAL);
            require(sent > 0, "send failed");
            left -= static_cast<size_t>(sent);
            if (left == 0)
                return;
            parts[0].iov_len = 0; // a header goes out whole
            parts[1] = {const_cast<char*>(caller.request.data()) + caller.requestLength - left, left};
        }
    }

    void call(uint32_t number, Caller& caller)
    {
        char header[] = "Type01\r\nReqIdHdr =00000000\r\nPayloadLength =00000000\r\n\r\n";
        write(caller);
        putHex(header + IdAt, number);
        putHex(header + LengthAt, static_cast<uint32_t>(caller.requestLength));
        caller.done = false;

        pthread_mutex_lock(&m_channel);
        m_pending[number] = &caller;
        send(header, caller);
        pthread_mutex_unlock(&m_channel);

        pthread_mutex_lock(&caller.mutex);
        while (!caller.done) {
            caller.asleep = true;
            pthread_cond_wait(&caller.answered, &caller.mutex);
        }
        pthread_mutex_unlock(&caller.mutex);

        pthread_mutex_lock(&m_channel);
        m_pending[number] = nullptr;
        pthread_mutex_unlock(&m_channel);

        const std::string_view reply(caller.reply.data(), caller.replyLength);
        require(reply.substr(0, 8) == "Status =" && getHex(reply.data() + 8) == 0, "bad reply");
        if (!m_load.set) {
            constexpr size_t textLength = 41;
            require(reply.substr(18, 11) == "ValueType =" && getHex(reply.data() + 29) == 3, "bad reply");
            require(reply.size() == textLength + m_load.bytes, "bad reply");
            std::memcpy(caller.value.data(), reply.data() + textLength, m_load.bytes);
        }
    }

    void read()
    {
        char header[HeaderLength];
        std::vector<char> spare;
        while (recv(m_socket, header, HeaderLength, MSG_WAITALL) == static_cast<ssize_t>(HeaderLength)) {
            const uint32_t number = getHex(header + IdAt);
            const size_t length = getHex(header + LengthAt);
            if (spare.size() < length)
                spare.resize(length);
            if (recv(m_socket, spare.data(), length, MSG_WAITALL) != static_cast<ssize_t>(length))
                return;
            pthread_mutex_lock(&m_channel);
            Caller& caller = *m_pending.at(number);
            pthread_mutex_lock(&caller.mutex);
            caller.reply.swap(spare);
            caller.replyLength = length;
            caller.done = true;
            if (caller.asleep) {
                caller.asleep = false;
                pthread_cond_signal(&caller.answered);
            }
            pthread_mutex_unlock(&caller.mutex);
            pthread_mutex_unlock(&m_channel);
        }
    }

    const Load m_load;
    const std::string m_name = valueName(m_load.bytes);
    int m_socket = -1;
    pthread_mutex_t m_channel = PTHREAD_MUTEX_INITIALIZER;
    std::array<Caller*, MaxCallers> m_pending{};
    std::array<Caller, MaxCallers> m_caller;
    uint32_t m_callers = 0;
};

} // namespace

std::unique_ptr<Contender> makeFloor(const Load& load) { return std::make_unique<Floor>(load); }
