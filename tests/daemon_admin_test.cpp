// What an operator and systemd ask of the daemon: a check, a backup, a socket taken over, news of being ready.
#include <SQLiteCpp/SQLiteCpp.h>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "daemon/files.h"
#include "daemon/operations.h"
#include "daemon/store/maintenance.h"
#include "support/running_daemon.h"

namespace {

using namespace obregd;

class Administration : public testing::Test {
protected:
    Administration()
    {
        std::string pattern = testing::TempDir() + "obregd-admin-XXXXXX";
        folder = mkdtemp(pattern.data());
    }
    ~Administration() override { std::filesystem::remove_all(folder); }

    std::string path(const char* pName) const { return folder + "/" + pName; }

    /// A store of `keys` keys with a value each.
    void fillStore(int keys) const
    {
        WritableStore store(path("store"));
        store.begin();
        for (int i = 0; i < keys; ++i)
            store.setValue(store.addKey(MachineId, "key" + std::to_string(i), MachineOwner), "name", 1, "data", 4);
        store.commit();
    }

    std::string folder;
};

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

int boundSocket(int type, const std::string& path)
{
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(path);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << path;
    return fd;
}

bool canConnect(const std::string& path)
{
    const Descriptor client(socket(AF_UNIX, SOCK_STREAM, 0));
    const sockaddr_un address = addressOf(path);
    return connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// Runs `child` and then the daemon in a process of its own.
pid_t startDaemon(const std::function<void()>& child, std::vector<std::string> words)
{
    words.insert(words.begin(), "obregd");
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    child();
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv(getenv("OBREGD"), arguments.data());
    _exit(127);
}

int exitStatus(pid_t pid)
{
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Administration, CheckFindsEachKindOfDamage)
{
    const struct {
        const char* pDamage;
        const char* pProblem;
    } cases[] = {
        {"UPDATE regkey SET subkey_count = 9 WHERE id = 2", "key 2 says that it has 9 sub-keys, but has 3"},
        {"UPDATE regkey SET value_count = 4 WHERE id = 16", "key 16 says that it has 4 values, but has 1"},
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
        struct stat found;
        EXPECT_EQ(stat(backup.c_str(), &found), 0);
        EXPECT_EQ(found.st_mode & 07777, 0600u);
    }
    over = true;
    writer.join();
    EXPECT_THROW(backUpStore(path("store"), path("backup0")), std::runtime_error) << "there is one already";
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        EXPECT_EQ(entry.path().extension(), "") << "left over";
}

TEST_F(Administration, CommandLineAnswersBesideARunningDaemon)
{
    RunningDaemon daemon(path("socket"), path("store"));
    daemon.start();
    const auto run = [&](std::vector<std::string> words) {
        words.insert(words.end(), {"--store", path("store")});
        return exitStatus(startDaemon([] { dup2(STDERR_FILENO, STDOUT_FILENO); }, words));
    };
    EXPECT_EQ(run({"--check"}), 0);
    EXPECT_EQ(run({"--backup", path("backup")}), 0);
    EXPECT_EQ(run({"--backup", path("backup")}), 1);
    EXPECT_GT(run({"--backup", path("other"), "--check"}), 1) << "both at once is a mistake";
    EXPECT_GT(run({"--backup"}), 1);
    daemon.stop(SIGTERM);
    SQLite::Database(path("store"), SQLite::OPEN_READWRITE).exec("UPDATE regkey SET value_count = 1 WHERE id = 1");
    EXPECT_EQ(run({"--check"}), 1);
}

TEST_F(Administration, TakesTheSocketThatIsHandedOverAndLeavesItBehind)
{
    const std::string socketPath = path("activated");
    const Descriptor listening(boundSocket(SOCK_STREAM, socketPath));
    ASSERT_EQ(listen(listening.get(), 5), 0);
    const Descriptor news(boundSocket(SOCK_DGRAM, path("news")));
    const auto handOver = [&] {
        dup2(listening.get(), 3);
        setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
        setenv("LISTEN_FDS", "1", 1);
        setenv("NOTIFY_SOCKET", path("news").c_str(), 1);
    };
    ASSERT_TRUE(canConnect(socketPath)); // waits in the queue for the daemon
    const pid_t pid = startDaemon(handOver, {"--socket", path("own"), "--store", path("store")});
    char text[64];
    const timeval patience{10, 0};
    setsockopt(news.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const auto nextNews = [&] {
        return std::string(text, static_cast<size_t>(std::max<ssize_t>(0, recv(news.get(), text, sizeof text, 0))));
    };
    EXPECT_EQ(nextNews(), "READY=1");
    EXPECT_TRUE(canConnect(socketPath));
    EXPECT_FALSE(std::filesystem::exists(path("own")));
    kill(pid, SIGTERM);
    EXPECT_EQ(nextNews(), "STOPPING=1");
    EXPECT_EQ(exitStatus(pid), 0);
    EXPECT_TRUE(std::filesystem::exists(socketPath)) << "it is systemd's to remove";
}

TEST_F(Administration, RefusesWhatItCannotListenOn)
{
    const struct {
        const char* pCount;
        bool isStream;
    } cases[] = {{"2", true}, {"1", false}};
    for (const auto& wrong : cases) {
        const Descriptor handed(boundSocket(wrong.isStream ? SOCK_STREAM : SOCK_DGRAM, path(wrong.pCount)));
        const auto handOver = [&] {
            dup2(handed.get(), 3);
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            setenv("LISTEN_FDS", wrong.pCount, 1);
        };
        EXPECT_EQ(exitStatus(startDaemon(handOver, {"--socket", path("own"), "--store", path("store")})), 1);
    }
}

} // namespace
