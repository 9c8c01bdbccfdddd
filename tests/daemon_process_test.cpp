// The obregd program over its socket: bad input, limits, starting and stopping.
#include <SQLiteCpp/SQLiteCpp.h>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <sys/resource.h>
#include <unistd.h>

#include "support/eventually.h"
#include "support/raw_client.h"
#include "support/running_daemon.h"
#include "support/temporary_folder.h"

namespace {

constexpr size_t MiB = size_t{1024} * 1024;

TEST_F(DaemonTest, BadInputHurtsOnlyItsSender)
{
    const std::string close = encoded(CloseKeyReqMsg(HKEY_USERS));
    const struct {
        const char* pWhat;
        std::string bytes;
        const char* pLogged; ///< null: an error packet for id 5, and the connection goes on
    } cases[] = {
        {"short payload", packet(5, "Type01"), nullptr},
        {"unknown request", packet(5, "Type0B\r\nKeyHandle =0x10\r\n\r\n                    "), nullptr},
        {"missing field", packet(5, "Type06\r\nKeyHandle =0x80000002\r\n\r\n" + std::string(60, ' ')), nullptr},
        {"no length", "Type01\r\nReqIdHdr =00000005\r\n\r\n" + std::string(PktHdrLength, ' '),
         "header that cannot be read"},
        {"unknown packet", "Type03" + packet(5, close).substr(6), "no request"},
        {"negative length", packetHeader(5, -1), "of -1 bytes"},
        {"over the limit", packetHeader(5, (64 << 20) + 1), "limit (--max-payload) is"},
    };
    m_daemon.start();
    RawClient bystander(m_socket);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pWhat);
        RawClient client(m_socket);
        client.send(c.bytes);
        if (c.pLogged == nullptr) {
            const auto reply = client.receive();
            EXPECT_EQ(reply.first, 5u);
            EXPECT_FALSE(reply.second.has_value());
            EXPECT_EQ(client.call<CloseKeyRespMsg>(CloseKeyReqMsg(HKEY_USERS))->m_status, 0u);
        } else {
            EXPECT_THROW(client.receive(), std::runtime_error);
            EXPECT_TRUE(m_daemon.logs(c.pLogged)) << m_daemon.log();
        }
        EXPECT_EQ(bystander.call<CloseKeyRespMsg>(CloseKeyReqMsg(HKEY_USERS))->m_status, 0u);
    }
}

TEST_F(DaemonTest, TheStoresLogStaysShortUnderReading)
{
    m_daemon.start();
    RawClient client(m_socket);
    const HANDLE key = client.create("K");
    const auto writeAndRead = [&](int times) {
        for (int i = 0; i < times; ++i) {
            const std::string data(100000, static_cast<char>(i));
            ASSERT_EQ(client.set(key, "v", data), 0u);
            ASSERT_EQ(client.query(key, "v"), data);
        }
    };
    {
        SQLite::Database store(m_store);
        const SQLite::Transaction old(store);
        store.execAndGet("SELECT count(*) FROM regvalue");
        const auto begun = std::chrono::steady_clock::now();
        writeAndRead(60);
        EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5)) << "nobody waits for that reader";
    }
    writeAndRead(600);
    EXPECT_LT(std::filesystem::file_size(m_store + "-wal"), 20 * MiB); // of 66 written
}

TEST_F(DaemonTest, WhoMakesItHoldTooMuchIsCutOff)
{
    RunningDaemon daemon(m_socket, m_store, {"--max-payload", "4M", "--max-held", "8M"});
    daemon.start();
    RawClient modest(m_socket);
    const HANDLE key = modest.create("K");
    const std::string begun = packet(1, setText(key, "v", std::string(3 * MiB, 'x'))).substr(0, 2 * MiB);
    std::list<RawClient> clients;
    try {
        while (clients.size() < 8)
            clients.emplace_back(m_socket).send(begun);
    } catch (const std::runtime_error&) { // cut off while it was sending
    }
    EXPECT_EQ(modest.set(key, "v", "small"), 0u);
    EXPECT_TRUE(daemon.logs("limit (--max-held)")) << daemon.log();
}

TEST_F(DaemonTest, TransactionsOfAClientThatHangsUpAreDone)
{
    m_daemon.start();
    RawClient other(m_socket);
    const HANDLE key = other.create("K");
    const HANDLE transactions = reinterpret_cast<HANDLE>(uintptr_t{0x80000011});
    const std::string text = "REGEDIT4\n[HKLM\\K]\n\"";
    {
        const RawClient gone(m_socket);
        std::string all;
        for (const char* pName : {"1", "2", "3"})
            all += packet(1, setText(transactions, pName, text + pName + "\"=\"\"\n"));
        gone.send(all + packet(2, encoded(CloseKeyReqMsg(key))));
        EXPECT_TRUE(gone.hasMore(5000)) << "all is read: the last is answered, or the first";
    }
    EXPECT_TRUE(eventually([&] { return other.query(key, "3") != "(none)"; }));
}

TEST_F(DaemonTest, StartsOnlyWhereNoOtherLives)
{
    m_daemon.start();
    for (const auto& [path, rights] : {std::pair(m_socket, 0666), {m_store, 0600}})
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(rights)) << path;
    std::filesystem::create_symlink(m_store, m_folder / "symbolic");
    std::filesystem::create_hard_link(m_store, m_folder / "hard");
    const std::string other = m_folder / "other";
    const struct {
        std::string socket, store, words;
    } refused[] = {
        {m_socket, other, m_socket + ": another obregd"},
        {other, m_store, m_store + ": another obregd"},
        {other, m_folder / "symbolic", "another name of a store"},
        {other, m_folder / "hard", "another name of a store"},
        {m_folder / "", other, "is not a socket"},
        {other, "/dev/null", "/dev/null"},
    };
    for (const auto& row : refused)
        try {
            RunningDaemon(row.socket, row.store).start();
            ADD_FAILURE() << row.socket << " and " << row.store;
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(row.words), std::string::npos) << error.what();
        }

    m_daemon.stop(SIGKILL);
    ASSERT_TRUE(std::filesystem::exists(m_socket)) << "a dead daemon's socket stays";
    m_daemon.start();
    RawClient(m_socket).create("K");
    EXPECT_EQ(m_daemon.stop(SIGTERM), 0);
    EXPECT_FALSE(std::filesystem::exists(m_socket)) << "a stopped daemon's does not";
}

TEST_F(DaemonTest, SaysAtTheStartWhatItFinds)
{
    const auto damage = [&] {
        std::fstream file(m_store, std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(std::filesystem::file_size(m_store) / 2 & ~size_t{4095}));
        file << std::string(4096, '\xff');
    };
    const struct {
        std::function<void()> before;
        const char* pLogged;
        const char* pNotLogged = "is missing";
    } starts[] = {
        {[] {}, "made a new, empty registry at"},
        {[] {}, "listening on", "made a new"},
        {damage, "is damaged: "},
        {[&] { std::filesystem::resize_file(m_store, 0); }, "made a new, empty registry at", "is damaged"},
        {[&] { std::filesystem::rename(m_store, m_folder / "away"); }, "its log is kept as", "is damaged"},
    };
    RunningDaemon daemon(m_socket, m_store, {"--verbose"});
    for (const auto& row : starts) {
        SCOPED_TRACE(row.pLogged);
        row.before();
        daemon.start();
        EXPECT_TRUE(daemon.logs(row.pLogged)) << daemon.log();
        EXPECT_TRUE(daemon.logs("the check at the start has ended"));
        EXPECT_EQ(daemon.log().find(row.pNotLogged), std::string::npos) << daemon.log();
        RawClient client(m_socket);
        for (int i = 0; i < 20; ++i)
            client.set(client.create("K"), std::to_string(i), std::string(20000, 'x'));
        daemon.stop(&row == &starts[3] ? SIGKILL : SIGTERM); // which leaves the log
    }
}

TEST_F(DaemonTest, StopsInGoodOrder)
{
    m_daemon.start();
    RawClient client(m_socket);
    const RawClient idle(m_socket);
    const HANDLE key = client.create("K");
    std::string bytes; // short and long requests mixed
    for (uint32_t id = 0; id < 500; ++id)
        bytes += packet(id, setText(key, std::to_string(id), std::string(id % 7 == 0 ? 5000 : 10, 'x')));
    client.send(bytes);
    std::vector<uint32_t> answered = {client.receive().first};
    EXPECT_EQ(m_daemon.stop(SIGTERM), 0);
    try {
        for (;;)
            answered.push_back(client.receive().first);
    } catch (const std::runtime_error&) {
    }
    m_daemon.start();
    RawClient after(m_socket);
    for (const uint32_t id : answered)
        EXPECT_EQ(after.query(key, std::to_string(id)).size(), id % 7 == 0 ? 5000u : 10u) << id;
    after.send(packet(9, encoded(CloseKeyReqMsg(key))));
    after.endSending(); // the reply comes all the same
    EXPECT_EQ(after.receive().first, 9u);
    EXPECT_THROW(after.receive(), std::runtime_error);
}

TEST_F(DaemonTest, RunsOutOfDescriptorsAndRecovers)
{
    RunningDaemon daemon(m_socket, m_store, {"--verbose"});
    daemon.start();
    RawClient first(m_socket);
    RawClient(m_socket).create("K");
    // A sanitizer needs descriptors to look at what it has not met before: a connection's end, a failed check.
    ASSERT_TRUE(daemon.logs("disconnected") && daemon.logs("the check at the start has ended"));
    const rlimit few{48, 48};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    std::list<RawClient> clients;
    while (clients.size() < 60)
        clients.emplace_back(m_socket); // the last ones wait in the backlog
    EXPECT_TRUE(daemon.logs("cannot accept connections"));
    usleep(300000);
    EXPECT_EQ(first.call<CloseKeyRespMsg>(CloseKeyReqMsg(HKEY_USERS))->m_status, 0u);
    const std::string log = daemon.log();
    const size_t line = log.find("cannot accept connections");
    EXPECT_EQ(log.find("cannot accept connections", line + 1), std::string::npos) << "one line, not one each";
    while (clients.size() > 1)
        clients.pop_front();
    EXPECT_EQ(clients.back().call<CloseKeyRespMsg>(CloseKeyReqMsg(HKEY_USERS))->m_status, 0u);
}

} // namespace
