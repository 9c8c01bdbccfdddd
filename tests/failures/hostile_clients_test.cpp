// obregd among clients that mean harm: they connect and sit, send a byte now and then, never read, announce what cannot
// be, take all the connections that they can get, by the hundred and as another user where that is possible. Meanwhile
// a well-behaved client is answered, every time and soon, and the log names who was over which limit.
#include <algorithm>
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

constexpr uid_t Stranger = 12345;
const std::string Value(100000, 'v');

using Client = std::unique_ptr<RawClient>;

/// The calling thread as another user, where the process may do that; the kernel keeps users by thread.
uid_t becomeStranger()
{
    syscall(SYS_setresuid, -1, Stranger, -1);
    return static_cast<uid_t>(syscall(SYS_geteuid));
}

/// What one hostile client does in one round, with its connection; throws when the daemon has ended it.
const struct Hostility {
    const char* pName;
    void (*round)(const RawClient& client, HANDLE key, int round);
    const char* pLogged; ///< the limit that it meets; null: it may go on so
} hostilities[] = {
    {"sits", [](const RawClient&, HANDLE, int) {}, nullptr},
    {"sends a byte now and then",
     [](const RawClient& client, HANDLE, int round) {
         client.send(packet(1, std::string(1000, 'x')).substr(static_cast<size_t>(round), 1));
     },
     "limit (--max-arrival) is 1 s"},
    {"sends half a request and waits",
     [](const RawClient& client, HANDLE key, int round) {
         if (round == 0)
             client.send(packet(1, setText(key, "v", Value)).substr(0, 70000));
     },
     "limit (--max-arrival) is 1 s"},
    {"never reads",
     [](const RawClient& client, HANDLE key, int) {
         const std::string query = packet(1, encoded(QueryValueReqMsg(key, "v")));
         for (int i = 0; i < 20; ++i)
             client.send(query);
     },
     "limit (--max-queued) is 1048576"},
    {"announces 4 GiB",
     [](const RawClient& client, HANDLE, int) {
         client.send("Type01\r\nReqIdHdr =00000001\r\nPayloadLength =FFFFFFFF\r\n\r\n");
     },
     "limit (--max-payload) is 524288"},
};

class HostileClients : public testing::Test {
protected:
    HostileClients()
    {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        m_daemon.start();
    }

    static constexpr char Socket[] = "/var/opt/quorlin/ombrel/obregd/s";
    const int m_perUser = std::min(scaled(200), 1000 / Slower); // with more, connecting takes longer than being cut off
    RunningDaemon m_daemon{
        Socket,
        "/var/opt/quorlin/ombrel/obregd/hostile.db",
        {"--max-payload", "512K", "--max-arrival", "1", "--max-per-user", std::to_string(m_perUser)}};
};

} // namespace

TEST_F(HostileClients, HurtNobodyElse)
{
    RawClient modest(Socket);
    const HANDLE key = modest.create("K");
    ASSERT_EQ(modest.set(key, "v", Value), 0u);

    std::atomic<bool> stop{false};
    std::atomic<uid_t> hostile{0};
    std::atomic<long> connections{0};
    std::vector<std::thread> threads;
    for (const Hostility& hostility : hostilities)
        threads.emplace_back([&, pHostility = &hostility] {
            hostile = becomeStranger();
            // Together more than allowed.
            std::vector<std::pair<Client, int>> clients(static_cast<size_t>(m_perUser) / 3);
            while (!stop) {
                for (auto& [pClient, round] : clients) {
                    try {
                        if (!pClient) {
                            pClient = std::make_unique<RawClient>(Socket);
                            round = 0;
                            ++connections;
                        }
                        pHostility->round(*pClient, key, round++);
                    } catch (const std::runtime_error&) {
                        pClient.reset();
                    }
                    if (stop)
                        break;
                }
                std::this_thread::sleep_for(50ms);
            }
        });

    long calls = 0;
    double longest = 0;
    const auto end = std::chrono::steady_clock::now() + 1s * (2 + scaled(1));
    for (auto now = std::chrono::steady_clock::now(); now < end; ++calls) {
        const std::string data = std::to_string(calls);
        EXPECT_EQ(modest.set(key, "mine", data), 0u);
        EXPECT_EQ(modest.query(key, "mine"), data);
        const auto then = std::chrono::steady_clock::now();
        longest = std::max(longest, std::chrono::duration<double>(then - now).count());
        now = then;
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_LT(longest, 2.0 * Slower) << "seconds for a set and a query";
    const std::string who = "uid " + std::to_string(hostile) + ", process " + std::to_string(getpid()) + ": ";
    const std::string log = m_daemon.log();
    EXPECT_NE(log.find(who), std::string::npos) << log.substr(0, 2000);
    for (const Hostility& hostility : hostilities) {
        if (hostility.pLogged != nullptr) {
            EXPECT_NE(log.find(hostility.pLogged), std::string::npos) << hostility.pName;
        }
    }
    EXPECT_NE(log.find("limit (--max-per-user) is " + std::to_string(m_perUser)), std::string::npos);
    std::printf("FIGURE hostile clients: %ld connections, %ld calls of a modest one meanwhile, the longest %.0f ms\n",
                connections.load(), 2 * calls, 1000 * longest);
}
