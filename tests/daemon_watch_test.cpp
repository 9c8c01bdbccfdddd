// Queries of HKEY_DYN_DATA\Changes, which wait in the daemon until there is something to tell.
#include <chrono>
#include <csignal>
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/raw_client.h"
#include "support/running_daemon.h"

namespace {

const HANDLE Changes = reinterpret_cast<HANDLE>(uintptr_t{0x80000010});

class WatchTest : public DaemonTest {
protected:
    void SetUp() override { m_daemon.start(); }

    static std::string question(HANDLE key, const std::string& since, int milliseconds, const char* pScope)
    {
        std::ostringstream text;
        text << std::hex << reinterpret_cast<uintptr_t>(key) << ' ' << since << std::dec << ' ' << milliseconds << ' '
             << pScope;
        return text.str();
    }

    /// What an answer says: its first string, and the changes without their numbers.
    static std::string told(const std::string& text)
    {
        std::istringstream strings(text);
        std::string all;
        std::string line;
        for (std::getline(strings, all, '\0'); std::getline(strings, line, '\0') && !line.empty();)
            all += ", " + line.substr(line.find('\t') + 1);
        return all.substr(all.find(',') == std::string::npos ? all.size() : all.find(',') + 2);
    }
};

TEST_F(WatchTest, AChangeWakesThoseWhomItConcerns)
{
    RawClient writer(m_socket);
    const HANDLE top = writer.create("Top");
    const HANDLE mid = writer.create("Mid", top);
    const HANDLE low = writer.create("Low", mid);
    const HANDLE aside = writer.create("Aside");
    const struct {
        HANDLE key;
        const char* pScope;
    } watches[] = {{top, "key"},  {top, "tree"},   {mid, "key"},
                   {mid, "tree"}, {aside, "tree"}, {HKEY_LOCAL_MACHINE, "key"}};
    const auto deleted = [&](HANDLE parent, const char* pName) {
        return writer.call<DeleteKeyRespMsg>(DeleteKeyReqMsg(parent, pName))->m_status;
    };
    const struct {
        const char* pName;
        std::function<REGSTATUS()> change;
        std::vector<const char*> told; // each watch's
    } rows[] = {
        {"a value",
         [&] { return writer.set(mid, "v", "1"); },
         {"", "value-set\tMid\tv", "value-set\t\tv", "value-set\t\tv", "", ""}},
        {"a value below",
         [&] { return writer.set(low, "v", "1"); },
         {"", "value-set\tMid\\Low\tv", "", "value-set\tLow\tv", "", ""}},
        {"no value",
         [&] { return writer.call<DeleteValueRespMsg>(DeleteValueReqMsg(low, "V"))->m_status; },
         {"", "value-deleted\tMid\\Low\tv", "", "value-deleted\tLow\tv", "", ""}},
        {"a refusal", [&] { return deleted(top, "Mid") - OBREG_STATUS_KEY_HAS_SUBKEYS; }, {"", "", "", "", "", ""}},
        {"a key gone",
         [&] { return deleted(mid, "Low"); },
         {"", "key-deleted\tMid\\Low\t", "key-deleted\tLow\t", "key-deleted\tLow\t", "", ""}},
        {"the key itself gone",
         [&] { return deleted(top, "Mid"); },
         {"key-deleted\tMid\t", "value-deleted\tMid\tv, key-deleted\tMid\t", "value-deleted\t\tv, key-deleted\t\t",
          "value-deleted\t\tv, key-deleted\t\t", "", ""}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pName);
        std::string now = writer.query(Changes, question(HKEY_LOCAL_MACHINE, "now", 0, "key"));
        std::vector<std::unique_ptr<RawClient>> watchers;
        for (const auto& watch : watches) {
            watchers.push_back(std::make_unique<RawClient>(m_socket));
            const std::string name = question(watch.key, now.c_str(), 400, watch.pScope);
            watchers.back()->send(packet(7, encoded(QueryValueReqMsg(Changes, name.c_str()))));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(row.change(), 0u);
        for (size_t i = 0; i < watchers.size(); ++i) {
            SCOPED_TRACE(i);
            const std::string text = watchers[i]->receive().second.value();
            const auto response = std::unique_ptr<QueryValueRespMsg>(
                QueryValueRespMsg::deserialize(text.data(), static_cast<int>(text.size())));
            EXPECT_EQ(told({response->m_pValueData, response->m_valueDataLen}), row.told[i]);
        }
    }
    const auto status = [&](const std::string& name) {
        return writer.call<QueryValueRespMsg>(QueryValueReqMsg(Changes, name.c_str()))->m_status;
    };
    EXPECT_EQ(status(question(mid, "100", 0, "key")), 0u) << "lost: there is no such number yet";
    EXPECT_EQ(status(question(HKEY_PERFORMANCE_DATA, "1", 0, "key")), OBREG_STATUS_BAD_HANDLE);
    for (const char* pName : {"", "80000002", "80000002 1 1", "80000002 1 1 all", "80000002 -1 1 key", "x 1 1 key",
                              "80000002 1 1 key 0", "80000002 1 1 key ", "end", "end g"})
        EXPECT_EQ(status(pName), OBREG_STATUS_BAD_NAME) << pName;
    const std::string now = writer.query(Changes, question(HKEY_LOCAL_MACHINE, "now", 0, "key"));
    EXPECT_EQ(status(question(mid, now.c_str(), 400, "key")), OBREG_STATUS_KEY_DELETED);
}

TEST_F(WatchTest, AUsersWatchesAreLimitedAndGoWithTheirConnections)
{
    m_daemon.stop(SIGTERM);
    RunningDaemon daemon(m_socket, m_store, {"--quota-watches=3"});
    daemon.start();
    RawClient other(m_socket);
    const std::string name = question(HKEY_USERS, "0", 600000, "key");
    const std::string request = packet(7, encoded(QueryValueReqMsg(Changes, name.c_str())));
    for (int round = 0; round < 3; ++round) {
        RawClient client(m_socket);
        for (int i = 0; i < 4; ++i)
            client.send(request);
        const std::string text = client.receive().second.value();
        const auto response = std::unique_ptr<QueryValueRespMsg>(
            QueryValueRespMsg::deserialize(text.data(), static_cast<int>(text.size())));
        EXPECT_EQ(response->m_status, OBREG_STATUS_TOO_MANY_WATCHES);
        EXPECT_FALSE(client.hasMore(0));
        if (round != 2)
            continue;
        EXPECT_EQ(other.call<CloseKeyRespMsg>(CloseKeyReqMsg(HKEY_USERS))->m_status, 0u);
        const auto begun = std::chrono::steady_clock::now();
        kill(daemon.pid(), SIGTERM);
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(client.receive().second) << "answered at the end";
        EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
    }
}

TEST_F(WatchTest, AWaitIsEndedByItsUserAndItsId)
{
    chmod(m_socket.substr(0, m_socket.rfind('/')).c_str(), 0755); // for the other user
    const RawClient waiting(m_socket);
    waiting.send(packet(7, encoded(QueryValueReqMsg(Changes, question(HKEY_USERS, "0", 60000, "key aB").c_str()))));
    EXPECT_FALSE(waiting.hasMore(50));
    RawClient client(m_socket);
    std::thread([&] {
        if (syscall(SYS_setresuid, -1, 12345, -1) == 0) { // of this thread only
            EXPECT_EQ(RawClient(m_socket).query(Changes, "end ab"), std::string("0\0", 3));
        }
    }).join();
    for (const auto& [name, ended] : {std::pair("end ac", '0'), {"end AB", '1'}, {"end ab", '0'}})
        EXPECT_EQ(client.query(Changes, name), std::string(1, ended) + std::string(2, '\0')) << name;
    EXPECT_TRUE(waiting.hasMore(1000));
}

} // namespace
