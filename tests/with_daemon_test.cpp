// libobreg.so and obregd together, as an application has them: the tree of keys over the real wire, sixteen threads at
// once, and a daemon that is killed under load. The 32-bit library talks to the same 64-bit daemon.
#include <atomic>
#include <chrono>
#include <csignal>
#include <map>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "obreg/registry.hpp"
#include "support/entries_of.h"
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
    const auto figure = [](const char* pGroup, const std::string& name) {
        return obreg::Key::open(obreg::performanceData(), pGroup).get<UINT64>(name);
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
        const auto values = open.values();
        groups[group.name] = static_cast<size_t>(std::distance(values.begin(), values.end()));
        EXPECT_EQ(open.info().values, groups[group.name]);
    }
    std::map<std::string, size_t> expected{{"Requests", 11}, {"Store", 3}, {"Clients", 3}, {"Bytes", 3}};
    for (const char* const pOfEachUser : {"Connections", "Held", "Requests", "Refused", "Keys", "Bytes"})
        expected[std::string("User") + pOfEachUser] = 1;
    EXPECT_EQ(groups, expected);
    EXPECT_EQ(figure("UserConnections", std::to_string(getuid())), 1u);

    HANDLE requests = nullptr;
    EXPECT_EQ(OBRegOpenKeyExA(HKEY_PERFORMANCE_DATA, "Requests", 0, KEY_READ, &requests), 0u);
    EXPECT_EQ(set(requests, "SetValue", "x"), OBREG_STATUS_ACCESS_DENIED);
    EXPECT_EQ(set(HKEY_PERFORMANCE_DATA, "new", "x"), OBREG_STATUS_ACCESS_DENIED);
    EXPECT_EQ(OBRegDeleteKeyA(HKEY_PERFORMANCE_DATA, "Requests"), OBREG_STATUS_ACCESS_DENIED);
    EXPECT_EQ(OBRegDeleteValueA(requests, "SetValue"), OBREG_STATUS_ACCESS_DENIED);
    HANDLE none = nullptr;
    EXPECT_EQ(OBRegCreateKeyExA(requests, "new", 0, nullptr, 0, KEY_READ, nullptr, &none, nullptr),
              OBREG_STATUS_ACCESS_DENIED);
    EXPECT_EQ(OBRegOpenKeyExA(HKEY_PERFORMANCE_DATA, "None", 0, KEY_READ, &none), OBREG_STATUS_NOT_FOUND);
    EXPECT_EQ(OBRegCloseKey(requests), 0u);
    EXPECT_EQ(OBRegCloseKey(reinterpret_cast<HANDLE>(15)), OBREG_STATUS_BAD_HANDLE); // no group has that number
}

TEST_F(WithDaemon, TreeOfKeys)
{
    HANDLE key = nullptr;
    UINT32 disposition = 0;
    for (const UINT32 expected : {REG_CREATED_NEW_KEY, REG_OPENED_EXISTING_KEY}) {
        EXPECT_EQ(OBRegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Acme", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                                    &disposition),
                  0u);
        EXPECT_EQ(disposition, expected);
    }
    EXPECT_EQ(set(key, "Greeting", "hello"), 0u);
    EXPECT_EQ(set(key, "", "unnamed"), 0u);
    EXPECT_EQ(get(key, "GREETING"), "hello");
    EXPECT_EQ(get(key, "@"), "unnamed");
    EXPECT_EQ(get(key, "default"), "unnamed");
    EXPECT_EQ(get(key, "Nothing"), "C7F20002");
    create(key, "Sub");

    HANDLE again = nullptr;
    EXPECT_EQ(OBRegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\ACME", 0, KEY_READ, &again), 0u);
    EXPECT_EQ(again, key); // a handle is the key's own number
    UINT32 figures[5] = {};
    UINT64 time = 0;
    EXPECT_EQ(OBRegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &figures[0], &figures[1], nullptr, &figures[2],
                                 &figures[3], &figures[4], nullptr, &time),
              0u);
    EXPECT_EQ(std::vector<UINT32>(figures, figures + 5), (std::vector<UINT32>{1, 3, 2, 8, 7}));
    EXPECT_GT(time, 130000000000000000u); // after 2012, in units of 100 ns since 1601

    char name[20];
    int nameLength = sizeof(name);
    UINT32 type = 0;
    EXPECT_EQ(OBRegEnumKeyExA(key, 0, name, &nameLength, nullptr, nullptr, nullptr, &time), 0u);
    EXPECT_STREQ(name, "Sub");
    nameLength = sizeof(name);
    EXPECT_EQ(OBRegEnumValueA(key, 0, name, &nameLength, nullptr, &type, nullptr, nullptr), 0u);
    EXPECT_STREQ(name, "Greeting");
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(OBRegEnumValueA(key, 2, name, &nameLength, nullptr, &type, nullptr, nullptr),
              OBREG_STATUS_NO_MORE_ENTRIES);

    EXPECT_EQ(OBRegDeleteKeyA(HKEY_LOCAL_MACHINE, "Software\\Acme"), OBREG_STATUS_KEY_HAS_SUBKEYS);
    EXPECT_EQ(OBRegDeleteKeyA(key, "Sub"), 0u);
    EXPECT_EQ(OBRegDeleteValueA(key, "greeting"), 0u);
    EXPECT_EQ(OBRegDeleteKeyA(HKEY_LOCAL_MACHINE, "Software\\Acme"), 0u);
    EXPECT_EQ(get(key, "Greeting"), "C7F203FA");
    EXPECT_EQ(OBRegCloseKey(key), 0u);

    const std::string large(20 << 20, 'L');
    key = create(HKEY_CURRENT_USER, "Large");
    EXPECT_EQ(set(key, "v", large), 0u);
    std::string back(large.size(), ' ');
    auto length = static_cast<UINT32>(back.size());
    EXPECT_EQ(OBRegQueryValueExA(key, "v", nullptr, nullptr, back.data(), &length), 0u);
    EXPECT_EQ(back == large, true);
    std::string tooLarge(65 << 20, 'L'); // the daemon cuts the connection; the call fails and the next one works
    EXPECT_EQ(set(key, "v", tooLarge), OBREG_STATUS_REQUEST_FAILED);
    EXPECT_EQ(OBRegCloseKey(key), 0u);
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

TEST_F(WithDaemon, SixteenThreadsEachGetTheirOwnReplies)
{
    const HANDLE key = create(HKEY_LOCAL_MACHINE, "Shared");
    for (int t = 0; t < 16; ++t)
        EXPECT_EQ(set(key, "v" + std::to_string(t), "data of " + std::to_string(t)), 0u);
    const size_t descriptors = entriesOf("/proc/self/fd");
    const size_t tasks = entriesOf("/proc/self/task");
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i)
                right += get(key, "v" + std::to_string(t)) == "data of " + std::to_string(t);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right, 16 * 5000);
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    EXPECT_EQ(entriesOf("/proc/self/task"), tasks);
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
    for (int i = 0; i < 5000 && entriesOf("/proc/self/task") != tasks; ++i) // the last reader but one is ending
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(entriesOf("/proc/self/task"), tasks);
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    std::printf("FIGURE storm: %d kills and restarts, %ld calls succeeded, %ld failed\n", kills, successes.load(),
                failures.load());
}
