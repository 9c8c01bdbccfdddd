// What an operator and systemd ask of the daemon: its command line, a socket taken over, news of its state.
#include <SQLiteCpp/SQLiteCpp.h>
#include <csignal>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/files.h"
#include "support/raw_client.h"
#include "support/running_daemon.h"
#include "support/temporary_folder.h"

namespace {

using namespace obregd;

class Administration : public testing::Test {
protected:
    std::string path(const std::string& name) const { return m_folder / name; }

    const TemporaryFolder m_folder;
};

/// What systemd sets for one who takes its sockets; the first is descriptor 3.
std::string handingOver(const Descriptor& socket, const std::string& count)
{
    return "exec 3<&" + std::to_string(socket.get()) + "; export LISTEN_PID=$$ LISTEN_FDS=" + count;
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
