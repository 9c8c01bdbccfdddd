// What guards the daemon's process: a log that never waits, a store whose files are watched, room to cure a full disk,
// a socket that stays reachable.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

#include "daemon/files.h"
#include "daemon/log.h"
#include "daemon/store/diskspace.h"
#include "daemon/store/store.h"
#include "support/raw_client.h"
#include "support/running_daemon.h"
#include "support/temporary_folder.h"

using namespace obregd;

namespace {

TEST(Log, NeverWaitsAndTellsWhatItLeftOut)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    fcntl(ends[1], F_SETPIPE_SZ, 4096); // a few dozen lines
    const Descriptor standardError(dup(STDERR_FILENO));
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> taken(fdopen(ends[0], "r"), std::fclose);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    std::optional<LogThread> thread(std::in_place);
    constexpr size_t Lines = 5000;
    static_assert(Lines > 1024 + 4096 / 14, "more than queue and pipe hold");
    for (size_t i = 0; i < Lines; ++i)
        logLine(LOG_NOTICE, "line %zu", i); // a log that waits would never come to an end here
    size_t told = 0;
    char line[200];
    for (size_t leftOut = 0; told < Lines && !HasFailure() && std::fgets(line, sizeof line, taken.get()) != nullptr;)
        if (std::sscanf(line, "obregd: log lines left out here because nobody took them in time: %zu", // NOLINT
                        &leftOut) == 1)
            told += leftOut;
        else
            EXPECT_EQ(line, "obregd: line " + std::to_string(told++) + '\n');
    EXPECT_EQ(told, Lines);
    thread.reset();
    dup2(standardError.get(), STDERR_FILENO);
}

using Guard = DaemonTest;

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

TEST_F(Guard, AFullDiskIsCuredByDeletions)
{
    constexpr uint64_t MiB = uint64_t{1024} * 1024;
    const std::string disk = m_folder / "disk";
    std::filesystem::create_directory(disk);
    ASSERT_EQ(mount("none", disk.c_str(), "tmpfs", 0, "size=32m"), 0);
    const std::shared_ptr<void> mounted(nullptr, [&](void*) { umount2(disk.c_str(), MNT_DETACH); });
    RunningDaemon daemon(m_socket, disk + "/store");
    daemon.start();
    const std::string data(10000, 'd');
    std::optional<RawClient> client(m_socket);
    const HANDLE key = client->create("K");
    ASSERT_EQ(client->set(key, "large", std::string(4 * MiB, 'l')), 0u); // more than the reserve has
    ASSERT_EQ(client->set(client->create("Secret"), OBREG_SECRET_VALUE, ""), 0u);
    size_t count = 0;
    REGSTATUS status = 0;
    while ((status = client->set(key, std::to_string(count), data)) == 0)
        ++count;
    EXPECT_EQ(status, OBREG_STATUS_STORE_FULL);
    EXPECT_GT(count * data.size(), 12 * MiB) << "most of the disk is for the store";
    daemon.stop(SIGTERM);
    for (std::ofstream stranger(disk + "/stranger", std::ios::binary); stranger.write(data.data(), 4096).flush();) {
    } // now all the room that was left is somebody else's
    daemon.start();
    client.emplace(m_socket);
    ASSERT_EQ(client->call<DeleteValueRespMsg>(DeleteValueReqMsg(key, "large"))->m_status, 0u) << daemon.log();
    for (size_t i = 0; i < count; ++i) {
        const DeleteValueReqMsg request(key, std::to_string(i).c_str());
        ASSERT_EQ(client->call<DeleteValueRespMsg>(request)->m_status, 0u) << i << '\n' << daemon.log();
    }
    EXPECT_FALSE(std::filesystem::exists(disk + "/store-reserve")) << "it was of use";
    for (size_t i = 0; i < count / 2; ++i) // what deletions have freed is room, though none of it is the disk's
        ASSERT_EQ(client->set(key, std::to_string(i), data), 0u) << i << '\n' << daemon.log();

    std::filesystem::remove(disk + "/stranger");
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(client->set(key, "more", data), 0u);
    EXPECT_EQ(std::filesystem::file_size(disk + "/store-reserve"), MiB) << "made anew";
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

} // namespace
