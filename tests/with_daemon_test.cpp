// libobreg.so and obregd together, as an application has them: the daemon's own figures, large values, the trace, and a
// daemon that is killed under sixteen threads. The 32-bit library talks to the same 64-bit daemon.
#include <atomic>
#include <chrono>
#include <csignal>
#include <map>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "obreg/registry.hpp"
#include "support/entries_of.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/running_daemon.h"
#include "support/scale.h"
#include "support/scripted_daemon.h"

using namespace std::chrono_literals;

namespace {

class WithDaemon : public testing::Test {
protected:
    static HANDLE create(HANDLE parent, const std::string& path)
    {
        HANDLE key = nullptr;
        UINT32 disposition = 0;
        EXPECT_EQ(OBRegCreateKeyExA(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, &disposition),
                  0u);
        return key;
    }

    static REGSTATUS set(HANDLE key, const std::string& name, std::string text)
    {
        return OBRegSetValueExA(key, name.c_str(), 0, REG_SZ, text.data(), static_cast<UINT32>(text.size()));
    }

    /// The value's data, or its status in hexadecimal.
    static std::string get(HANDLE key, const std::string& name)
    {
        char data[64];
        UINT32 length = sizeof(data);
        const REGSTATUS status = OBRegQueryValueExA(key, name.c_str(), nullptr, nullptr, data, &length);
        if (status == 0)
            return {data, length};
        snprintf(data, sizeof(data), "%08X", status);
        return data;
    }

    FreshDaemon m_daemon;
};

} // namespace

TEST_F(WithDaemon, ItsFiguresAreKeys)
{
    const auto figure = [](const char* pGroup, const std::string& pName) {
        return obreg::Key::open(obreg::performanceData(), pGroup).get<UINT64>(pName);
    };
    const UINT64 before = figure("requests", "QUERYVALUE");
    const HANDLE key = create(HKEY_LOCAL_MACHINE, "a");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(set(key, "v", std::string(1000, 'x')), 0u);
    EXPECT_EQ(figure("Requests", "QueryValue"), before + 1); // the one that asked before
    EXPECT_EQ(figure("Requests", "SetValue"), 3u);
    EXPECT_EQ(figure("Store", "Writes"), 4u);
    EXPECT_EQ(figure("Clients", "Connected"), 1u);
    EXPECT_GT(figure("Bytes", "Received"), 3000u);

    std::map<std::string, size_t> groups;
    for (const obreg::SubKey& group : obreg::performanceData().subKeys()) {
        const obreg::Key open = obreg::Key::open(obreg::performanceData(), group.name);
        for ([[maybe_unused]] const obreg::NamedValue& value : open.values())
            ++groups[group.name];
        EXPECT_EQ(open.info().values, groups[group.name]);
    }
    std::map<std::string, size_t> expected{{"Requests", 11}, {"Store", 3}, {"Clients", 3}, {"Bytes", 3}};
    for (const char* const pOfEachUser : {"Connections", "Held", "Requests", "Refused", "Keys", "Bytes"})
        expected[std::string("User") + pOfEachUser] = 1;
    EXPECT_EQ(groups, expected);
    EXPECT_EQ(figure("UserConnections", std::to_string(getuid())), 1u);

    const obreg::Key requests = obreg::Key::open(obreg::performanceData(), "Requests");
    EXPECT_EQ(OBRegDeleteValueA(requests.handle(), "SetValue"), OBREG_STATUS_ACCESS_DENIED);
    for (const HANDLE figures : {HKEY_PERFORMANCE_DATA, requests.handle()}) {
        HANDLE none = nullptr;
        EXPECT_EQ(set(figures, "SetValue", "x"), OBREG_STATUS_ACCESS_DENIED);
        EXPECT_EQ(OBRegCreateKeyExA(figures, "new", 0, nullptr, 0, KEY_READ, nullptr, &none, nullptr),
                  OBREG_STATUS_ACCESS_DENIED);
        EXPECT_EQ(OBRegOpenKeyExA(figures, "None", 0, KEY_READ, &none), OBREG_STATUS_NOT_FOUND);
    }
    EXPECT_EQ(OBRegDeleteKeyA(HKEY_PERFORMANCE_DATA, "Requests"), OBREG_STATUS_ACCESS_DENIED);
    EXPECT_EQ(OBRegCloseKey(reinterpret_cast<HANDLE>(15)), OBREG_STATUS_BAD_HANDLE); // no group has that number
}

TEST_F(WithDaemon, ValuesMayBeLargeUpToALimit)
{
    obreg::Key key = obreg::Key::create(obreg::currentUser(), "Large");
    const obreg::Value large{REG_BINARY, std::string(20 << 20, 'L')};
    key.set("v", large);
    EXPECT_EQ(key.get<obreg::Value>("v") == large, true);
    std::error_code error; // the daemon cuts the connection; the call fails and the next one works
    key.set("v", obreg::Value{REG_BINARY, std::string(65 << 20, 'L')}, error);
    EXPECT_EQ(error, obreg::Status::requestFailed);
    EXPECT_EQ(key.info().values, 1u);
}

TEST_F(WithDaemon, ItsDescriptorsAreNoStandardStreams)
{
    const auto openStreams = [] {
        int open = 0; // a bit for each
        for (int fd = 0; fd < 3; ++fd)
            open |= (fcntl(fd, F_GETFD) != -1 ? 1 : 0) << fd;
        return open;
    };
    const auto works = [&](int streams) { return OBRegCloseKey(HKEY_USERS) == 0 && openStreams() == streams; };
    for (int streams = 0; streams < 7; ++streams) {
        m_daemon.stop(SIGKILL); // so that the call connects anew
        m_daemon.start();
        int saved[3];
        for (int& fd : saved)
            fd = fcntl(static_cast<int>(&fd - saved), F_DUPFD_CLOEXEC, 10);
        for (int fd = 0; fd < 3; ++fd)
            if ((streams >> fd & 1) == 0)
                close(fd);
        const bool parent = works(streams);
        const pid_t child = fork();
        if (child == 0)
            _exit(works(streams) ? 0 : 1);
        int status = -1;
        waitpid(child, &status, 0);
        const bool after = works(streams);
        for (int fd = 0; fd < 3; ++fd) {
            dup2(saved[fd], fd);
            close(saved[fd]);
        }
        EXPECT_TRUE(parent && status == 0 && after) << streams;
    }
}

TEST_F(WithDaemon, TraceIsSwitchedByTheExecutable)
{
    // This program is linked so that it holds the copy of CDebugLevel that the library must use.
    logcapture::setDebugLevel(1);
    EXPECT_EQ(OBRegCloseKey(HKEY_USERS), 0u);
    logcapture::setDebugLevel(0);
    EXPECT_TRUE(logcapture::contains("15 OBReg -ReqReply- End, retStatus = 0\n"));
    logcapture::take();
    EXPECT_EQ(OBRegCloseKey(HKEY_USERS), 0u);
    EXPECT_FALSE(logcapture::contains("15 "));
}

// The daemon is killed and started again and again while sixteen threads write and read back: every call ends, what a
// call says is true, and in the end there is one reader and one connection.
TEST_F(WithDaemon, CallsOutlastAStormOfKills)
{
    const HANDLE key = create(HKEY_LOCAL_MACHINE, "Durable");
    const size_t descriptors = entriesOf("/proc/self/fd");
    const size_t tasks = entriesOf("/proc/self/task");
    std::atomic<bool> stop{false};
    std::atomic<long> successes{0};
    std::atomic<long> failures{0};
    std::vector<std::map<std::string, std::string>> answered(16);
    std::vector<std::thread> writers;
    for (size_t t = 0; t < answered.size(); ++t)
        writers.emplace_back([&, t] {
            for (int i = 0; !stop; ++i) {
                const std::string name = "t" + std::to_string(t) + "." + std::to_string(i % 50);
                const bool set = WithDaemon::set(key, name, std::to_string(i)) == 0;
                ++(set ? successes : failures);
                if (!set) { // perhaps done, perhaps not: no longer known
                    answered[t].erase(name);
                    continue;
                }
                answered[t][name] = std::to_string(i);
                const std::string found = get(key, name);
                EXPECT_TRUE(found == std::to_string(i) || found == "C7F10001") << found;
            }
        });
    const int kills = scaled(50);
    for (int i = 0; i < kills; ++i) {
        std::this_thread::sleep_for(Slower * std::chrono::microseconds(2000 + i * 7919 % 30000));
        EXPECT_NE(m_daemon.stop(SIGKILL), -1);
        m_daemon.start();
    }
    std::this_thread::sleep_for(20ms);
    stop = true;
    for (std::thread& writer : writers)
        writer.join();
    size_t checked = 0;
    for (const auto& values : answered)
        for (const auto& value : values) {
            ASSERT_EQ(get(key, value.first), value.second) << value.first;
            ++checked;
        }
    EXPECT_GT(checked, 100u / Slower);
    EXPECT_TRUE(eventually([&] { return entriesOf("/proc/self/task") == tasks; })); // the last reader but one ends
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    std::printf("FIGURE storm: %d kills and restarts, %ld calls succeeded, %ld failed\n", kills, successes.load(),
                failures.load());
}
