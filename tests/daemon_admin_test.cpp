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

using Administration = DaemonTest;

/// What systemd sets for one who takes its sockets; the first is descriptor 3.
std::string handingOver(const Descriptor& socket, const std::string& count)
{
    return "exec 3<&" + std::to_string(socket.get()) + "; export LISTEN_PID=$$ LISTEN_FDS=" + count;
}

TEST_F(Administration, CommandLineAnswersBesideARunningDaemon)
{
    m_daemon.start();
    const auto run = [&](const std::string& options) {
        return WEXITSTATUS(std::system(("\"$OBREGD\" >/dev/null 2>&1 --store " + m_store + options).c_str()));
    };
    EXPECT_EQ(run(" --check"), 0);
    EXPECT_EQ(run(" --backup " + (m_folder / "backup")), 0);
    EXPECT_EQ(run(" --backup " + (m_folder / "backup")), 1);
    EXPECT_EQ(run(" --compact"), 0);
    for (const char* pOther : {" --check --backup ", " --compact --backup "})
        EXPECT_GT(run(pOther + (m_folder / "other")), 1) << "both at once is a mistake";
    m_daemon.stop(SIGTERM);
    SQLite::Database(m_store, SQLite::OPEN_READWRITE).exec("UPDATE regkey SET value_count = 1 WHERE id = 1");
    EXPECT_EQ(run(" --check"), 1);
}

TEST_F(Administration, TakesTheSocketThatIsHandedOverAndTellsOfItself)
{
    const Descriptor listening(boundSocket(SOCK_STREAM, m_folder / "activated"));
    ASSERT_EQ(listen(listening.get(), 5), 0);
    const Descriptor news(boundSocket(SOCK_DGRAM, m_folder / "news"));
    const timeval patience{10, 0};
    setsockopt(news.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const auto nextNews = [&]() -> std::string {
        char text[64] = {};
        return {text, recv(news.get(), text, sizeof text, 0) > 0 ? strnlen(text, sizeof text) : 0};
    };
    RawClient early(m_folder / "activated"); // waits in the queue for the daemon
    m_daemon.start(handingOver(listening, "1") + " WATCHDOG_USEC=200000 NOTIFY_SOCKET=" + (m_folder / "news"));
    EXPECT_EQ(nextNews(), "READY=1");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(nextNews(), "WATCHDOG=1");
    EXPECT_NE(early.create("K"), nullptr);
    EXPECT_FALSE(std::filesystem::exists(m_socket));
    EXPECT_EQ(m_daemon.stop(SIGTERM), 0);
    std::string last = nextNews();
    while (last == "WATCHDOG=1")
        last = nextNews();
    EXPECT_EQ(last, "STOPPING=1");
    EXPECT_TRUE(std::filesystem::exists(m_folder / "activated")) << "it is systemd's to remove";
}

TEST_F(Administration, RefusesWhatItCannotListenOn)
{
    for (const auto& [count, type] : {std::pair("2", SOCK_STREAM), {"1", SOCK_DGRAM}}) {
        const Descriptor handed(boundSocket(type, m_folder / count));
        EXPECT_THROW(m_daemon.start(handingOver(handed, count)), std::runtime_error);
    }
}

} // namespace
