// Counted ownership, pending requests and the channel, each by itself.
#include <array>
#include <chrono>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/cchannel.h"
#include "client/clientreq.h"
#include "client/conditions.h"
#include "client/livechannels.h"
#include "common/channelproto.h"
#include "support/entries_of.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/scripted_daemon.h"

using namespace std::chrono_literals;

namespace {

std::atomic<unsigned> receiveDelay{0}; // microseconds between a call of recv and its work

struct Counted : ObjRef {
    ~Counted() { ++destroyed; }
    static inline int destroyed = 0;
};

uint32_t now(const uint32_t& counter) { return __atomic_load_n(&counter, __ATOMIC_SEQ_CST); }

/// A channel to the scripted daemon, held as the library holds it.
class Channel : public testing::Test {
protected:
    std::unique_ptr<SmartCChannel> connect()
    {
        const sockaddr_un address = addressOf(FixedSocketPath);
        std::unique_ptr<SmartCChannel> pChannel(new SmartCChannel(new CChannel(&address)));
        EXPECT_EQ((*pChannel)->init(), 0);
        return pChannel;
    }

    /// One request as ReqReply makes it: "-1", or the reply.
    static std::string exchange(CChannel& channel, std::string payload)
    {
        const uint32_t id = channel.allocReqId();
        ClientReq req(id);
        char* pReply = nullptr;
        int length = 0;
        int status = channel.submitReq(id, req, payload.data(), static_cast<int>(payload.size()));
        if (status == 0)
            status = req.waitForCompletion(&pReply, &length);
        channel.removeReq(id);
        const std::unique_ptr<char[]> owner(pReply);
        return status == 0 ? std::string(pReply, static_cast<size_t>(length)) : std::to_string(status);
    }

    void TearDown() override
    {
        EXPECT_TRUE(eventually([] { return now(numCChannelObjects) == 0 && now(numClientReqObjects) == 0; }));
        LiveChannels::awaitReaders(std::chrono::seconds(5));
        EXPECT_TRUE(eventually([this] { return entriesOf("/proc/self/fd") == m_descriptors; }));
        logcapture::take();
    }

private:
    const size_t m_descriptors = entriesOf("/proc/self/fd");
};

ScriptedDaemon::Script echo()
{
    return ScriptedDaemon::answering([](const std::string& text) { return text; });
}

} // namespace

extern "C" ssize_t recv(int fd, void* pBuff, size_t length, int flags)
{
    if (receiveDelay != 0)
        usleep(receiveDelay);
    return recvfrom(fd, pBuff, length, flags, nullptr, nullptr);
}

TEST(SmartPtr, LastHolderDestroys)
{
    auto* const pObj = new Counted;
    EXPECT_FALSE(pObj->DecRefCount()); // a count of 0 stays 0
    {
        SmartPtr<Counted> holder(pObj);
        holder = holder.operator->(); // even by itself
        SmartPtr<Counted> assigned;
        assigned = holder;
        EXPECT_EQ(pObj->GetRefCount(), 2u);
        assigned = nullptr;
        EXPECT_TRUE(assigned == nullptr && assigned != holder);
        EXPECT_EQ(Counted::destroyed, 0);
    }
    EXPECT_EQ(Counted::destroyed, 1);
}

TEST_F(Channel, StaysClosed)
{
    sockaddr_in nowhere{};
    nowhere.sin_family = AF_INET;
    CChannel channel(&nowhere);
    EXPECT_EQ(channel.init(), -1);
    channel.closeChannel();
    EXPECT_EQ(channel.init(), -1);
    EXPECT_TRUE(logcapture::contains("14 CChannel::init- invalid state, state = 5\n"));
    EXPECT_EQ(exchange(channel, "late"), "-1");
}

TEST_F(Channel, WhatADaemonMaySend)
{
    // What answers a request, and the result: the reply, or -1 and the connection's end, and a line in the log.
    const struct {
        const char* pName;
        std::function<std::string(uint32_t id)> bytes;
        const char* pLogged;
        bool isAnswer = false;
    } cases[] = {
        {"several packets in one write", [](uint32_t id) { return packet(98, "") + packet(id, "fine"); },
         "14 CChannel::connectionThread- Error, did not find object in map", true},
        {"unknown type", [](uint32_t id) { return "Type03" + packet(id, "fine").substr(6); },
         "14 CChannel::connectionThread- Unknown Packet Type"},
        {"no id", [](uint32_t) { return std::string(55, 'x'); },
         "15 CChannel::connectionThread- Unable to obtain payload length"},
        {"negative length", [](uint32_t id) { return packetHeader(id, -1); },
         "14 CChannel::connectionThread- Unable to allocate receive buffer"},
        {"length over the limit", [](uint32_t id) { return packetHeader(id, MaxPayloadLength + 1); },
         "14 CChannel::connectionThread- Unable to allocate receive buffer"},
    };
    logcapture::setDebugLevel(1);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.pName);
        const ScriptedDaemon daemon([&](ScriptedDaemon::Peer& peer) {
            for (ScriptedDaemon::Request request; peer.receive(request);)
                peer.send(test.bytes(request.id));
        });
        const auto pChannel = connect();
        EXPECT_EQ(exchange(**pChannel, "request"), test.isAnswer ? "fine" : "-1");
        EXPECT_TRUE(logcapture::contains(test.pLogged));
        EXPECT_EQ((*pChannel)->ok(), test.isAnswer);
        (*pChannel)->closeChannel();
        logcapture::take();
    }
    logcapture::setDebugLevel(0);
}

TEST_F(Channel, RepliesOutOfOrderReachTheirRequests)
{
    // Collects the requests that are there and answers them last first.
    ScriptedDaemon daemon([](ScriptedDaemon::Peer& peer) {
        std::vector<ScriptedDaemon::Request> waiting;
        for (ScriptedDaemon::Request request; peer.receive(request);) {
            waiting.push_back(request);
            if (waiting.size() < 16 && peer.hasMore(1))
                continue;
            for (; !waiting.empty(); waiting.pop_back())
                peer.reply(waiting.back().id, waiting.back().payload);
        }
    });
    const auto pChannel = connect();
    std::vector<std::unique_ptr<ClientReq>> others; // leave a few of the threads something to borrow and sleep on
    while (others.size() < Conditions::MaxLent - 8)
        others.push_back(std::make_unique<ClientReq>(1));
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i) {
                const std::string text = std::to_string(t) + ":" + std::to_string(i);
                right += exchange(**pChannel, text) == text;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right, 16 * 5000);
}

TEST_F(Channel, ClosedNumberMayBelongToAStranger)
{
    // While the reader is about to receive, the channel is closed and the application gets the same number for a socket
    // of its own: what arrives there is not the reader's.
    ScriptedDaemon daemon(echo());
    receiveDelay = 2000;
    for (int i = 0; i < 20; ++i) {
        const auto pChannel = connect();
        EXPECT_EQ(exchange(**pChannel, "x"), "x");
        (*pChannel)->closeChannel();
        std::array<int, 2> strangers{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, strangers.data()), 0);
        for (const int fd : strangers)
            ASSERT_EQ(write(fd, "mine", 4), 4);
        std::this_thread::sleep_for(5ms);
        for (const int fd : strangers) {
            char text[4];
            EXPECT_EQ(::recvfrom(fd, text, sizeof(text), MSG_DONTWAIT, nullptr, nullptr), 4);
            close(fd);
        }
    }
    receiveDelay = 0;
}
