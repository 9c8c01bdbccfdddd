// The library against a daemon that means harm: random bytes, valid packets that nobody asked for, halves of packets,
// lengths of every size, silence, and every now and then a right answer; while sixteen threads call. No call outlives
// the connections that it was sent over, nothing is lost in memory, and the process is there in the end.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "client/client.h"
#include "client/clientreq.h"
#include "client/livechannels.h"
#include "failures/fail_nth.h"
#include "support/eventually.h"
#include "support/scale.h"
#include "support/scripted_daemon.h"
#include "support/ten_calls.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

using Peer = ScriptedDaemon::Peer;

constexpr int Threads = 16;
constexpr auto LongestSilence = 30ms;

std::string header(const char* pType, uint32_t id, int length) { return pType + packetHeader(id, length).substr(6); }

/// What a connection does; each is one choice of the random numbers that its seed gives.
class Malice {
public:
    Malice(Peer& peer, unsigned seed) : m_peer(peer), m_random(seed) {}

    void run()
    {
        switch (below(6)) {
        case 0:
            m_peer.send(noise(below(5000)));
            return;
        case 1: // what nobody asked for
            for (size_t i = below(100); i > 0; --i)
                m_peer.send(anyPacket(static_cast<uint32_t>(below(40))));
            return silence();
        case 2: // half a packet
            m_peer.send(anyPacket(2).substr(0, below(120)));
            return silence();
        case 3: // a length that may be a lie
            m_peer.send(header("Type01", 2, length()) + noise(below(3000)));
            return silence();
        default:
            return serve();
        }
    }

private:
    size_t below(size_t limit) { return m_random() % limit; }
    void silence() { std::this_thread::sleep_for(below(1000) * LongestSilence / 1000); }

    std::string noise(size_t length)
    {
        std::string bytes(length, '\0');
        for (char& c : bytes)
            c = static_cast<char>(m_random());
        return bytes;
    }

    int length()
    {
        const int lengths[] = {
            0, 1, -1, INT32_MIN, INT32_MAX, 256 << 20, (256 << 20) + 1, 1 << 20, 4096, static_cast<int>(m_random())};
        return lengths[below(std::size(lengths))];
    }

    std::string anyPacket(uint32_t id)
    {
        const auto reply = std::next(m_replies.begin(), static_cast<ptrdiff_t>(below(m_replies.size())));
        const std::string payload = below(4) == 0 ? noise(below(300)) : reply->second;
        const size_t choice = below(64);
        if (choice == 0)
            return header("Type03", id, 0);
        return choice < 8 ? header("Type02", id, length()) : packet(id, choice < 16 ? "" : payload);
    }

    /// Answers for a while: rightly, wrongly, twice, in another order.
    void serve()
    {
        std::vector<ScriptedDaemon::Request> requests;
        ScriptedDaemon::Request request;
        for (size_t i = below(200); i > 0 && m_peer.receive(request); --i) {
            requests.push_back(request);
            if (below(3) == 0 && m_peer.hasMore(1))
                continue;
            std::shuffle(requests.begin(), requests.end(), m_random);
            for (const auto& [id, text, isError] : requests)
                m_peer.send(below(5) == 0 ? anyPacket(id) + anyPacket(id) : packet(id, m_replies[text.substr(4, 2)]));
            requests.clear();
        }
    }

    Peer& m_peer;
    std::mt19937 m_random;
    std::map<std::string, std::string> m_replies = TenCalls::goodReplies(0);
};

} // namespace

TEST(HostileDaemon, EndsNoCallWithoutAnAnswerAndLosesNothing)
{
    const long blocks = failnth::liveBlocks();
    std::atomic<long> calls{0};
    std::atomic<long> succeeded{0};
    int connections = 0;
    {
        std::atomic<unsigned> seed{20261124};
        const ScriptedDaemon daemon([&](Peer& peer) { Malice(peer, ++seed).run(); });
        const auto end = Clock::now() + 1s * scaled(2) * Slower;
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < Threads; ++i)
            threads.emplace_back([&, i] {
                std::mt19937 random(i);
                while (Clock::now() < end) {
                    TenCalls::Results results;
                    const TenCalls::Function& function = TenCalls::all[random() % std::size(TenCalls::all)];
                    const auto begin = Clock::now();
                    succeeded += function.call(reinterpret_cast<HANDLE>(16), results) == 0;
                    EXPECT_LT(Clock::now() - begin, 10s);
                    ++calls;
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        connections = daemon.connections();
        IpcShutdown();
        LiveChannels::awaitReaders(std::chrono::seconds(5));
    }
    EXPECT_GT(succeeded, 0);
    EXPECT_GT(connections, 10);
    EXPECT_EQ(__atomic_load_n(&numCChannelObjects, __ATOMIC_SEQ_CST), 0u);
    EXPECT_EQ(__atomic_load_n(&numClientReqObjects, __ATOMIC_SEQ_CST), 0u);
    EXPECT_EQ(failnth::liveBlocks(), blocks);
    std::printf("FIGURE hostile daemon: %ld calls, %ld succeeded, %d connections\n", calls.load(), succeeded.load(),
                connections);
}
