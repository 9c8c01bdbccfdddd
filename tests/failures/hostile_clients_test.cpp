// obregd among clients that mean harm, by the hundred and as another user where that is possible: they connect and sit,
// send a byte now and then, never read, announce what cannot be, ask for much and leave, write without end. Each of
// these by itself, and all at once: a modest client is answered every time and soon, and the daemon holds no more than
// it may.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/syscall.h>

#include "support/raw_client.h"
#include "support/running_daemon.h"
#include "support/scale.h"

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

constexpr uid_t Stranger = 12345;
constexpr size_t Held = size_t{64} << 20; // --max-held
const std::string Page(1000, 'p');
const std::string Short(60000, 's');
const std::string Long(400000, 'l');

/// The calling thread as another user, where the process may do that; the kernel keeps users by thread.
void becomeStranger() { syscall(SYS_setresuid, -1, Stranger, -1); }

void send(const RawClient& client, const std::string& text, int times)
{
    std::string packets;
    for (int i = 0; i < times; ++i)
        packets += packet(1, text);
    client.send(packets);
}

/// What one hostile client does in one round, with its connection; throws when the daemon has ended it. A client that
/// is done with its connection throws as well.
const struct Hostility {
    const char* pName;
    const char* pLogged; ///< the limit that it meets; empty: it may go on so
    void (*round)(RawClient& client, HANDLE own, int round);
} hostilities[] = {
    {"sits", "", [](RawClient&, HANDLE, int) {}},
    {"sends a byte now and then", "limit (--max-arrival) is 1 s",
     [](RawClient& client, HANDLE, int round) {
         client.send(packet(1, std::string(1000, 'x')).substr(static_cast<size_t>(round), 1));
     }},
    {"never reads", "limit (--max-queued) is 1048576",
     [](RawClient& client, HANDLE own, int) { send(client, encoded(QueryValueReqMsg(own, "s")), 20); }},
    {"announces 4 GiB", "limit (--max-payload) is 524288",
     [](RawClient& client, HANDLE, int) { client.send(packetHeader(1, -1)); }},
    {"asks for long values and leaves", "",
     [](RawClient& client, HANDLE own, int) {
         send(client, encoded(QueryValueReqMsg(own, "v")), 20);
         throw std::runtime_error("left");
     }},
    {"writes without end", "",
     [](RawClient& client, HANDLE own, int round) {
         send(client, setText(own, std::to_string(round % 100), Page), 64);
         for (int i = 0; i < 64; ++i)
             client.receive();
     }},
    {"writes long values and leaves", "",
     [](RawClient& client, HANDLE own, int) {
         send(client, setText(own, "v", Long), 4);
         throw std::runtime_error("left");
     }},
    {"makes and deletes keys", "",
     [](RawClient& client, HANDLE own, int) {
         client.create("a\\b\\c", own);
         for (const char* const pName : {"a\\b\\c", "a\\b", "a"})
             client.call<DeleteKeyRespMsg>(DeleteKeyReqMsg(own, pName));
     }},
};

/// The time below which 99 of 100 stay, in milliseconds.
double p99(std::vector<double>& times)
{
    std::sort(times.begin(), times.end());
    return 1000 * times[times.size() * 99 / 100];
}

class HostileClients : public testing::Test {
protected:
    HostileClients()
    {
        m_daemon.start();
        RawClient client(Socket);
        m_own = client.create(std::to_string(Stranger).c_str(), HKEY_USERS);
        client.set(m_own, "v", Long);
        client.set(m_own, "s", Short);
    }

    void attack(const Hostility& hostility);
    void beModest(Clock::duration time);
    /// Modest for a while beside these.
    void meet(const Hostility* pFirst, size_t count, Clock::duration time);

    static constexpr char Socket[] = "/var/opt/quorlin/ombrel/obregd/s";
    static constexpr size_t EachHas = 40; // connections
    RunningDaemon m_daemon{Socket,
                           "/var/opt/quorlin/ombrel/obregd/hostile.db",
                           {"--max-payload", "512K", "--max-arrival", "1", "--max-held", std::to_string(Held),
                            "--max-per-user", std::to_string(EachHas * 6)}};
    HANDLE m_own = nullptr; ///< the stranger's key, with a long value "v" and a short one "s"
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_connections{0};
    std::vector<double> m_reads, m_writes; // seconds
    UINT64 m_mostHeld = 0;
};

void HostileClients::attack(const Hostility& hostility)
{
    becomeStranger();
    setpriority(PRIO_PROCESS, 0, 10); // of this thread: the daemon is tried, and not who gets a processor
    std::vector<std::pair<std::unique_ptr<RawClient>, int>> clients(EachHas);
    while (!m_stop) {
        for (auto& [pClient, round] : clients) {
            try {
                if (!pClient) {
                    pClient = std::make_unique<RawClient>(Socket);
                    round = 0;
                    ++m_connections;
                }
                hostility.round(*pClient, m_own, round++);
            } catch (const std::runtime_error&) {
                pClient.reset();
            }
        }
        std::this_thread::sleep_for(5ms);
    }
}

void HostileClients::beModest(Clock::duration time)
{
    RawClient client(Socket);
    const HANDLE key = client.create("Modest");
    const HANDLE figures = client.create("Bytes", HKEY_PERFORMANCE_DATA);
    const auto end = Clock::now() + time;
    for (int i = 0; Clock::now() < end; ++i) {
        const std::string data = std::to_string(i);
        const auto begun = Clock::now();
        EXPECT_EQ(client.set(key, "mine", data), 0u);
        const auto written = Clock::now();
        EXPECT_EQ(client.query(key, "mine"), data);
        m_writes.push_back(std::chrono::duration<double>(written - begun).count());
        m_reads.push_back(std::chrono::duration<double>(Clock::now() - written).count());
        const std::string held = client.query(figures, "Held");
        UINT64 bytes = 0;
        std::memcpy(&bytes, held.data(), std::min(held.size(), sizeof bytes));
        m_mostHeld = std::max(m_mostHeld, bytes);
    }
}

void HostileClients::meet(const Hostility* pFirst, size_t count, Clock::duration time)
{
    m_stop = false;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; ++i)
        threads.emplace_back([this, pHostility = pFirst + i] { attack(*pHostility); });
    std::this_thread::sleep_for(100ms);
    m_reads.clear();
    m_writes.clear();
    beModest(time);
    m_stop = true;
    for (std::thread& thread : threads)
        thread.join();
    const double reads = p99(m_reads);
    const double writes = p99(m_writes);
    std::printf("FIGURE modest beside a client that %s: reads p99 %.2f ms, writes p99 %.1f ms\n",
                count == 1 ? pFirst->pName : "does all of it", reads, writes);
    EXPECT_LE(reads, 10 * Slower) << pFirst->pName;
    EXPECT_LE(writes, 100 * Slower) << pFirst->pName;
    EXPECT_LE(m_mostHeld, Held);
}

} // namespace

TEST_F(HostileClients, HurtNobodyElse)
{
    for (const Hostility& hostility : hostilities)
        meet(&hostility, 1, 300ms * (1 + scaled(1)));
    meet(hostilities, std::size(hostilities), 1s * (1 + scaled(2)));
    for (const Hostility& hostility : hostilities)
        EXPECT_TRUE(m_daemon.logs(hostility.pLogged)) << hostility.pName;
    EXPECT_TRUE(m_daemon.logs("uid " + std::to_string(Stranger) + ", process " + std::to_string(getpid()) + ": "));
    EXPECT_TRUE(m_daemon.logs("limit (--max-per-user) is "));
    std::printf("FIGURE hostile clients: %ld connections, %zu calls of a modest one\n", m_connections.load(),
                m_reads.size() + m_writes.size());
}
