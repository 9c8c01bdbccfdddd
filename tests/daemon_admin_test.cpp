// What an operator and systemd ask of the daemon: a check, a backup, a socket taken over, news of its state.
#include <SQLiteCpp/SQLiteCpp.h>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "daemon/files.h"
#include "daemon/store/maintenance.h"
#include "daemon/store/store.h"
#include "support/raw_client.h"
#include "support/running_daemon.h"
#include "support/temporary_folder.h"

namespace {

using namespace obregd;

class Administration : public testing::Test {
protected:
    std::string path(const std::string& name) const { return m_folder / name; }

    /// A store of `keys` keys with a value each.
    void fillStore(int keys) const
    {
        WritableStore store(path("store"));
        store.begin();
        for (int i = 0; i < keys; ++i)
            store.setValue(store.addKey(MachineId, "key" + std::to_string(i), MachineOwner), "name", 1, "data", 4);
        store.commit();
    }

    const TemporaryFolder m_folder;
};

/// What systemd sets for one who takes its sockets; the first is descriptor 3.
std::string handingOver(const Descriptor& socket, const std::string& count)
{
    return "exec 3<&" + std::to_string(socket.get()) + "; export LISTEN_PID=$$ LISTEN_FDS=" + count;
}

TEST_F(Administration, CheckFindsEachKindOfDamage)
{
    const struct {
        const char* pDamage;
        const char* pProblem;
    } cases[] = {
        {"UPDATE regkey SET subkey_count = 9 WHERE id = 2", "key 2 says that it has 9 sub-keys, but has 3"},
        {"UPDATE regkey SET value_count = 4 WHERE id = 16", "key 16 says that it has 4 values, but has 1"},
        {"UPDATE regkey SET value_data_max = 5 WHERE id = 16",
         "key 16 says that its longest value has 5 bytes (1 times), but that has 4 (1 times)"},
        {"UPDATE usage SET bytes = bytes + 1", "owner -1 is said to take 3 keys of 3 made and 37 bytes, but takes"},
        {"INSERT INTO leftover VALUES (16, 0)", "key 16 is to be cleared away, but is there"},
        {"UPDATE regkey SET parent = 16 WHERE id = 16", "key 16 hangs on no root"},
        {"UPDATE regvalue SET key = 77 WHERE key = 16", "belongs to key 77, which is not there"},
        {"UPDATE sqlite_sequence SET seq = 17", "key number 18 could be given out twice"},
        {"PRAGMA writable_schema = 1; UPDATE sqlite_schema SET rootpage = 2 WHERE name = 'regvalue_name'", ""},
    };
    for (const auto& damaged : cases) {
        SCOPED_TRACE(damaged.pDamage);
        std::filesystem::remove(path("store"));
        fillStore(3);
        EXPECT_EQ(checkStore(path("store")).problems, std::vector<std::string>());
        SQLite::Database(path("store"), SQLite::OPEN_READWRITE).exec(damaged.pDamage);
        std::string all;
        try {
            for (const std::string& problem : checkStore(path("store")).problems)
                all += problem + '\n';
        } catch (const std::runtime_error& failure) {
            all = failure.what(); // too broken to be asked
        }
        EXPECT_NE(all, "");
        EXPECT_NE(all.find(damaged.pProblem), std::string::npos) << all;
        EXPECT_THROW(backUpStore(path("store"), path("backup")), std::runtime_error);
        EXPECT_FALSE(std::filesystem::exists(path("backup")));
    }
    EXPECT_THROW(checkStore(path("nothing")), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(path("nothing"))) << "a check makes no store";
}

TEST_F(Administration, BackupIsOneStateOfAStoreThatIsBeingWritten)
{
    fillStore(1);
    std::atomic<bool> over = false;
    std::thread writer([&] {
        WritableStore store(path("store"));
        for (int i = 0; !over; ++i) {
            store.begin();
            const KeyId key = store.addKey(MachineId, "busy" + std::to_string(i), MachineOwner);
            for (int j = 0; j < 10; ++j)
                store.setValue(key, std::to_string(j), 1, "data", 4);
            store.commit();
        }
    });
    for (int i = 0; i < 10; ++i) {
        const std::string backup = path("backup") + std::to_string(i);
        const StoreReport report = backUpStore(path("store"), backup);
        EXPECT_EQ(report.values, 10 * (report.keys - 4) + 1) << "a transaction was cut in two";
        const StoreReport again = checkStore(backup);
        EXPECT_EQ(again.problems, std::vector<std::string>());
        EXPECT_EQ(again.summary(), report.summary());
        EXPECT_EQ(std::filesystem::status(backup).permissions(), std::filesystem::perms(0600));
    }
    over = true;
    writer.join();
    EXPECT_THROW(backUpStore(path("store"), path("backup0")), std::runtime_error) << "there is one already";
    for (const auto& entry : std::filesystem::directory_iterator(path("")))
        EXPECT_EQ(entry.path().extension(), "") << "left over";
}

TEST_F(Administration, CommandLineAnswersBesideARunningDaemon)
{
    RunningDaemon daemon(path("socket"), path("store"));
    daemon.start();
    const auto run = [&](const std::string& options) {
        return WEXITSTATUS(std::system(("\"$OBREGD\" >/dev/null 2>&1 --store " + path("store") + options).c_str()));
    };
    EXPECT_EQ(run(" --check"), 0);
    EXPECT_EQ(run(" --backup " + path("backup")), 0);
    EXPECT_EQ(run(" --backup " + path("backup")), 1);
    EXPECT_GT(run(" --check --backup " + path("other")), 1) << "both at once is a mistake";
    daemon.stop(SIGTERM);
    SQLite::Database(path("store"), SQLite::OPEN_READWRITE).exec("UPDATE regkey SET value_count = 1 WHERE id = 1");
    EXPECT_EQ(run(" --check"), 1);
}

TEST_F(Administration, TakesTheSocketThatIsHandedOverAndTellsOfItself)
{
    const Descriptor listening(boundSocket(SOCK_STREAM, path("activated")));
    ASSERT_EQ(listen(listening.get(), 5), 0);
    const Descriptor news(boundSocket(SOCK_DGRAM, path("news")));
    const timeval patience{10, 0};
    setsockopt(news.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const auto nextNews = [&]() -> std::string {
        char text[64] = {};
        return {text, recv(news.get(), text, sizeof text, 0) > 0 ? strnlen(text, sizeof text) : 0};
    };
    RawClient early(path("activated")); // waits in the queue for the daemon
    RunningDaemon daemon(path("own"), path("store"));
    daemon.start(handingOver(listening, "1") + " WATCHDOG_USEC=200000 NOTIFY_SOCKET=" + path("news"));
    EXPECT_EQ(nextNews(), "READY=1");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(nextNews(), "WATCHDOG=1");
    EXPECT_NE(early.create("K"), nullptr);
    EXPECT_FALSE(std::filesystem::exists(path("own")));
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    std::string last = nextNews();
    while (last == "WATCHDOG=1")
        last = nextNews();
    EXPECT_EQ(last, "STOPPING=1");
    EXPECT_TRUE(std::filesystem::exists(path("activated"))) << "it is systemd's to remove";
}

TEST_F(Administration, RefusesWhatItCannotListenOn)
{
    for (const auto& [count, type] : {std::pair("2", SOCK_STREAM), {"1", SOCK_DGRAM}}) {
        const Descriptor handed(boundSocket(type, path(count)));
        EXPECT_THROW(RunningDaemon(path("own"), path("store")).start(handingOver(handed, count)), std::runtime_error);
    }
}

} // namespace
