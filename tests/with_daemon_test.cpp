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

using namespace obreg;
using namespace std::chrono_literals;

namespace {

class WithDaemon : public testing::Test {
protected:
    FreshDaemon m_daemon;
};

} // namespace

TEST_F(WithDaemon, ItsFiguresAreKeys)
{
    const Key all = performanceData();
    const auto figure = [&](const char* pGroup, const std::string& pName) {
        return Key::open(all, pGroup).get<UINT64>(pName);
    };
    const UINT64 before = figure("requests", "QUERYVALUE");
    const Key key = Key::create(localMachine(), "a");
    for (int i = 0; i < 3; ++i)
        key.set("v", std::string(1000, 'x'));
    EXPECT_EQ(figure("Requests", "QueryValue"), before + 1); // the one that asked before
    EXPECT_EQ(figure("Requests", "SetValue"), 3u);
    EXPECT_EQ(figure("Store", "Writes"), 4u);
    EXPECT_EQ(figure("Clients", "Connected"), 1u);
    EXPECT_GT(figure("Bytes", "Received"), 3000u);

    std::error_code error;
    std::map<std::string, long> groups;
    for (const SubKey& group : all.subKeys()) {
        const Key open = Key::open(all, group.name);
        groups[group.name] = std::distance(open.values(error).begin(), open.values(error).end());
        EXPECT_EQ(open.info().values, groups[group.name]);
        for (const Key* const pKey : {&all, &open}) {
            pKey->set("SetValue", "x", error);
            EXPECT_EQ(error, Status::accessDenied);
            Key::create(*pKey, "new", KEY_READ, nullptr, error);
            EXPECT_EQ(error, Status::accessDenied);
            Key::open(*pKey, "None", KEY_READ, error);
            EXPECT_EQ(error, Status::notFound);
        }
        all.remove(group.name, error);
        EXPECT_EQ(error, Status::accessDenied);
    }
    std::map<std::string, long> expected{{"Requests", 11}, {"Store", 3}, {"Clients", 3}, {"Bytes", 3}};
    for (const char* const pOfEachUser : {"Connections", "Held", "Requests", "Refused", "Keys", "Bytes"})
        expected[std::string("User") + pOfEachUser] = 1;
    EXPECT_EQ(groups, expected);
    EXPECT_EQ(figure("UserConnections", std::to_string(getuid())), 1u);
    Key::open(all, "Requests").removeValue("SetValue", error);
    EXPECT_EQ(error, Status::accessDenied);
    EXPECT_EQ(OBRegCloseKey(reinterpret_cast<HANDLE>(15)), OBREG_STATUS_BAD_HANDLE); // no group has that number
}

TEST_F(WithDaemon, LargeValuesComeBack)
{
    const Key key = Key::create(currentUser(), "Large");
    const Value large{REG_BINARY, std::string(20 << 20, 'L')};
    key.set("v", large);
    EXPECT_TRUE(key.get<Value>("v") == large);
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
    const Key key = Key::create(localMachine(), "Durable");
    const size_t descriptors = entriesOf("/proc/self/fd");
    const size_t tasks = entriesOf("/proc/self/task");
    std::atomic<bool> stop{false};
    std::atomic<long> successes{0};
    std::atomic<long> failures{0};
    std::vector<std::map<std::string, std::string>> answered(16);
    std::vector<std::thread> writers;
    for (size_t t = 0; t < answered.size(); ++t)
        writers.emplace_back([&, t] {
            std::error_code error;
            for (int i = 0; !stop; ++i) {
                const std::string name = "t" + std::to_string(t) + "." + std::to_string(i % 50);
                key.set(name, std::to_string(i), error);
                ++(error ? failures : successes);
                if (error) { // perhaps done, perhaps not: no longer known
                    answered[t].erase(name);
                    continue;
                }
                answered[t][name] = std::to_string(i);
                const std::string found = key.get<std::string>(name, error);
                EXPECT_TRUE(error ? error == Status::requestFailed : found == std::to_string(i)) << error << found;
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
            ASSERT_EQ(key.get<std::string>(value.first), value.second) << value.first;
            ++checked;
        }
    EXPECT_GT(checked, 100u / Slower);
    EXPECT_TRUE(eventually([&] { return entriesOf("/proc/self/task") == tasks; })); // the last reader but one ends
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    std::printf("FIGURE storm: %d kills and restarts, %ld calls succeeded, %ld failed\n", kills, successes.load(),
                failures.load());
}
