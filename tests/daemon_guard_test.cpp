// What guards the daemon's process: a log that never waits, a store that stays its own, room to cure a full disk, a
// socket that stays reachable, and systemd, which watches it.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "daemon/files.h"
#include "daemon/log.h"
#include "daemon/store/diskspace.h"
#include "daemon/store/store.h"
#include "support/raw_client.h"
#include "support/running_daemon.h"

using namespace obregd;

namespace {

/// Standard error as a pipe that holds a few dozen lines, until this goes.
class PipeAsStandardError {
public:
    PipeAsStandardError()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == 0) {
            fcntl(ends[1], F_SETPIPE_SZ, 4096);
            m_read = ends[0];
            dup2(ends[1], STDERR_FILENO);
            close(ends[1]);
        }
    }
    ~PipeAsStandardError()
    {
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
        close(m_read);
    }

    std::string readLine() const
    {
        std::string line;
        for (char c = 0; read(m_read, &c, 1) == 1 && c != '\n';)
            line += c;
        return line;
    }

private:
    int m_saved = dup(STDERR_FILENO);
    int m_read = -1;
};

TEST(Log, NeverWaitsAndTellsWhatItLeftOut)
{
    const PipeAsStandardError pipe;
    const LogThread thread;
    constexpr size_t Lines = 5000;
    static_assert(Lines > 1024 + 4096 / 14, "more than queue and pipe hold");
    for (size_t i = 0; i < Lines; ++i)
        logLine(LOG_NOTICE, "line %zu", i); // a log that waits would never come to an end here
    size_t told = 0;
    for (size_t leftOut = 0; told < Lines;) {
        const std::string line = pipe.readLine();
        if (std::sscanf(line.c_str(), "obregd: log lines left out here because nobody took them in time: %zu", // NOLINT
                        &leftOut) == 1)
            told += leftOut;
        else
            ASSERT_EQ(line, "obregd: line " + std::to_string(told++));
    }
    EXPECT_EQ(told, Lines);
}

TEST(Log, LimitsWhatOneCauseMayWrite)
{
    LogLimit limit;
    LogLimit::Time now = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(limit.allow(now), 0u);
    EXPECT_FALSE(limit.allow(now));
    EXPECT_FALSE(limit.allow(now + std::chrono::seconds(9)));
    EXPECT_EQ(limit.allow(now += std::chrono::seconds(10)), 2u);
    EXPECT_FALSE(limit.allow(now));
    EXPECT_FALSE(limit.isFresh(now += std::chrono::hours(1))) << "a line was left out";
    EXPECT_EQ(limit.allow(now), 1u);
    EXPECT_TRUE(limit.isFresh(now + std::chrono::seconds(10)));
}

class Guard : public testing::Test {
protected:
    ~Guard() override { std::filesystem::remove_all(m_folder); }

    /// What a daemon says that does not start.
    static std::string refusal(RunningDaemon&& daemon)
    {
        try {
            daemon.start();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }

    std::string m_folder = testing::TempDir() + "/obregd-XXXXXX";
    bool m_made = mkdtemp(m_folder.data()) != nullptr;
    std::string m_store = m_folder + "/store";
    std::string m_socket = m_folder + "/socket";
    RunningDaemon m_daemon{m_socket, m_store};
};

TEST_F(Guard, OneStoreHasOneDaemonWhateverItIsCalled)
{
    m_daemon.start();
    std::filesystem::create_symlink(m_store, m_folder + "/symbolic");
    std::filesystem::create_hard_link(m_store, m_folder + "/hard");
    for (const std::string name : {"/symbolic", "/hard"})
        EXPECT_NE(refusal({m_folder + "/other", m_folder + name}).find("another name of a store"), std::string::npos);
    std::filesystem::remove(m_store + ".lock");
    EXPECT_NE(refusal({m_folder + "/other", m_store}), "");
    RawClient(m_socket).create("K");
}

TEST_F(Guard, TheStoresFilesAreWatched)
{
    std::ofstream(m_store).close();
    StoreIdentity early(m_store);
    const WritableStore store(m_store);
    StoreIdentity late(m_store);
    const auto kept = [&] {
        const bool isKept = early.isKept();
        EXPECT_EQ(late.isKept(), isKept);
        return isKept;
    };
    EXPECT_TRUE(kept());
    for (const std::string end : {"", "-wal", "-shm"}) {
        SCOPED_TRACE(end);
        const std::string path = m_store + end;
        std::filesystem::rename(path, path + ".away");
        EXPECT_FALSE(kept());
        std::filesystem::copy(path + ".away", path);
        EXPECT_FALSE(kept());
        std::filesystem::rename(path + ".away", path);
        EXPECT_TRUE(kept());
    }
}

/// A daemon whose store is on a small disk of its own.
class SmallDisk : public Guard {
protected:
    static constexpr uint64_t MiB = uint64_t{1024} * 1024;

    ~SmallDisk() override
    {
        m_onDisk.stop(SIGKILL);
        umount2(m_disk.c_str(), MNT_DETACH);
    }

    /// A file of somebody else's, in all the room that is left.
    void fill() const
    {
        std::ofstream file(m_disk + "/stranger", std::ios::binary);
        const std::string page(4096, 'x');
        while (file.write(page.data(), 4096).flush()) {
        }
    }

    std::string m_disk = m_folder + "/disk";
    bool m_mounted =
        std::filesystem::create_directory(m_disk) && mount("none", m_disk.c_str(), "tmpfs", 0, "size=32m") == 0;
    std::string m_reserve = m_disk + "/store-reserve";
    RunningDaemon m_onDisk{m_socket, m_disk + "/store"};
};

TEST_F(SmallDisk, IsCuredByDeletions)
{
    ASSERT_TRUE(m_mounted);
    m_onDisk.start();
    const std::string data(10000, 'd');
    auto pClient = std::make_unique<RawClient>(m_socket);
    const HANDLE key = pClient->create("K");
    size_t count = 0;
    REGSTATUS status = 0;
    while ((status = pClient->set(key, std::to_string(count), data)) == 0)
        ++count;
    EXPECT_EQ(status, OBREG_STATUS_STORE_FULL);
    EXPECT_GT(count * data.size(), 12 * MiB) << "most of the disk is for the store";
    m_onDisk.stop(SIGTERM);
    fill();
    m_onDisk.start();
    pClient = std::make_unique<RawClient>(m_socket);
    for (size_t i = 0; i < count; ++i) {
        const DeleteValueReqMsg request(key, std::to_string(i).c_str());
        ASSERT_EQ(pClient->call<DeleteValueRespMsg>(request)->m_status, 0u) << i << '\n' << m_onDisk.log();
    }
    EXPECT_FALSE(std::filesystem::exists(m_reserve)) << "it was of use";
    for (size_t i = 0; i < count / 2; ++i) // what deletions have freed is room, though none of it is the disk's
        ASSERT_EQ(pClient->set(key, std::to_string(i), data), 0u) << i << '\n' << m_onDisk.log();

    std::filesystem::remove(m_disk + "/stranger");
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(pClient->set(key, "more", data), 0u);
    EXPECT_EQ(std::filesystem::file_size(m_reserve), MiB) << "made anew";
}

TEST_F(Guard, ARemovedSocketIsMadeAgain)
{
    m_daemon.start();
    RawClient old(m_socket);
    std::filesystem::remove(m_socket);
    EXPECT_TRUE(m_daemon.logs("listening on a new one"));
    RawClient(m_socket).create("K");

    std::filesystem::remove(m_socket);
    std::ofstream(m_socket) << "a stranger's";
    EXPECT_TRUE(m_daemon.logs("something else has been put in the socket's place"));
    EXPECT_EQ(std::filesystem::file_size(m_socket), 12u);
    EXPECT_EQ(old.call<CloseKeyRespMsg>(CloseKeyReqMsg(HKEY_USERS))->m_status, 0u);
    EXPECT_EQ(m_daemon.stop(SIGTERM), 0);
    EXPECT_EQ(std::filesystem::file_size(m_socket), 12u) << "left alone at the end, too";
}

TEST_F(Guard, SystemdIsTold)
{
    sockaddr_un address{AF_UNIX, {}};
    const std::string path = m_folder + "/notify";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const Descriptor systemd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(systemd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const timeval patience{10, 0};
    setsockopt(systemd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const auto next = [&] {
        char text[64];
        const ssize_t length = recv(systemd.get(), text, sizeof text, 0);
        return std::string(text, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    };
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "200000", 1);
    m_daemon.start();
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    EXPECT_EQ(next(), "READY=1");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(next(), "WATCHDOG=1");
    EXPECT_EQ(m_daemon.stop(SIGTERM), 0);
    std::string last = next();
    while (last == "WATCHDOG=1")
        last = next();
    EXPECT_EQ(last, "STOPPING=1");
}

} // namespace
