// The daemon when something below it fails: each of the ten requests, a transaction and a query of the past, with the
// first, second, third ... allocation, system call or call of the store failing while it is worked on, once and for a
// while.
//
// Whatever failed, the client gets a reply that tells the truth, an error packet, or the end of its connection; other
// clients are served on; nothing of a refused write stays; the store is sound in the end.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <span>
#include <thread>

#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include "daemon/files.h"
#include "daemon/serve/server.h"
#include "daemon/serve/storeguard.h"
#include "daemon/store/diskspace.h"
#include "daemon/store/maintenance.h"
#include "daemon/store/quickcheck.h"
#include "failures/sweep.h"
#include "support/raw_client.h"
#include "support/scale.h"
#include "support/temporary_folder.h"

using failnth::Attempt;
using failnth::Call;
using failnth::Effect;
using failnth::FromThereOn;
using failnth::Victims;

// The store's calls: what SQLite, a shared library, calls is taken from the program first.
#define STORE_CALL(kind, type, name, parameters, number, ...)                                                          \
    extern "C" type name parameters                                                                                    \
    {                                                                                                                  \
        if (const int error = failnth::next(Call::kind)) {                                                             \
            errno = error;                                                                                             \
            return (type)(-1);                                                                                         \
        }                                                                                                              \
        return (type)syscall(number, __VA_ARGS__);                                                                     \
    }

// NOLINTBEGIN
STORE_CALL(StoreRead, int, open64, (const char* path, int flags, ...), SYS_open, path, flags, 0600)
STORE_CALL(StoreRead, ssize_t, pread64, (int fd, void* bytes, size_t length, off64_t at), SYS_pread64, fd, bytes,
           length, at)
STORE_CALL(StoreRead, void*, mmap64, (void* at, size_t length, int prot, int flags, int fd, off64_t from), SYS_mmap, at,
           length, prot, flags, fd, from)
STORE_CALL(StoreWrite, ssize_t, pwrite64, (int fd, const void* bytes, size_t length, off64_t at), SYS_pwrite64, fd,
           bytes, length, at)
STORE_CALL(StoreWrite, int, ftruncate64, (int fd, off64_t length), SYS_ftruncate, fd, length)
STORE_CALL(StoreWrite, int, fdatasync, (int fd), SYS_fdatasync, fd)
// NOLINTEND

namespace {

sqlite3_mem_methods realMemory;

/// Puts our own functions in the place of SQLite's allocations.
void takeOverMemory()
{
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &realMemory);
    sqlite3_mem_methods methods = realMemory;
    methods.xMalloc = [](int size) {
        return failnth::next(Call::Allocation) != 0 ? nullptr : realMemory.xMalloc(size);
    };
    methods.xRealloc = [](void* p, int size) {
        return failnth::next(Call::Allocation) != 0 ? nullptr : realMemory.xRealloc(p, size);
    };
    sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
}

constexpr auto Others = Victims::OtherThreads; // the daemon's

// Harmless: the client notices nothing.
const auto Stride = static_cast<unsigned>(scaled(30));
const failnth::Failure failures[] = {
    {"an allocation", Call::Allocation, ENOMEM, Others, Effect::MayFail, FromThereOn, Stride},
    {"the store's disk full", Call::StoreWrite, ENOSPC, Others, Effect::MayFail},
    {"a write of the store", Call::StoreWrite, EIO, Others, Effect::MayFail},
    {"a read of the store", Call::StoreRead, EIO, Others, Effect::MayFail},
    {"a descriptor for a client", Call::Accept, EMFILE, Others, Effect::MayFail},
    {"a client that is gone already", Call::Accept, ECONNABORTED, Others, Effect::Harmless, 3},
    {"an accept interrupted", Call::Accept, EINTR, Others, Effect::Harmless, 3},
    {"the peer's credentials", Call::SocketOption, ENOMEM, Others, Effect::MayFail},
    {"a receive", Call::Receive, ECONNRESET, Others, Effect::MayFail},
    {"a receive at the end", Call::Receive, failnth::Ended, Others, Effect::MayFail},
    {"a receive interrupted", Call::Receive, EINTR, Others, Effect::Harmless, 3},
    {"a receive of one byte", Call::Receive, failnth::Short, Others, Effect::Harmless},
    {"a send", Call::Send, EPIPE, Others, Effect::MayFail},
    {"a send interrupted", Call::Send, EINTR, Others, Effect::Harmless, 3},
    {"a send of one byte", Call::Send, failnth::Short, Others, Effect::Harmless},
    {"a send to a full socket", Call::Send, EAGAIN, Others, Effect::Harmless, 3},
    {"watching a descriptor", Call::Poll, ENOMEM, Others, Effect::MayFail},
};

constexpr char Name[] = "a name that needs a block of its own";
constexpr char Doomed[] = "another name that needs a block of its own";

constexpr char Folder[] = "/var/opt/quorlin/ombrel/obregd"; // in memory
const std::string Data(20000, 'd');                         // more than a page of the store

const HANDLE Transactions = reinterpret_cast<HANDLE>(uintptr_t{0x80000011});
const HANDLE History = reinterpret_cast<HANDLE>(uintptr_t{0x80000012});
int g_round = 0; ///< the token of its transaction

/// Deletes and makes keys, and sets what "set" does.
std::string transaction(HANDLE key)
{
    char handle[12];
    std::snprintf(handle, sizeof handle, "#%08x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(key)));
    std::string text = std::string("REGEDIT4\n[-") + handle + '\\' + Doomed + "]\n[" + handle +
                       "\\a\\key\\that is not there]\n[" + handle + "]\n\"" + Doomed + "\"=-\n\"changing\"=hex:64";
    for (size_t i = 1; i < Data.size(); ++i)
        text += ",64";
    return setText(Transactions, std::to_string(g_round), text + '\n');
}

std::string question(HANDLE key)
{
    char name[60];
    std::snprintf(name, sizeof name, "%08x now before 100 tree",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(key)));
    return encoded(QueryValueReqMsg(History, name));
}

const struct Request {
    const char* pName;
    std::string (*text)(HANDLE key);
} requests[] = {
    {"open", [](HANDLE key) { return encoded(OpenKeyReqMsg(key, Name, 0, 0)); }},
    {"create", [](HANDLE key) { return encoded(CreateKeyReqMsg(key, "a\\key\\that is not there", 0, 0)); }},
    {"close", [](HANDLE key) { return encoded(CloseKeyReqMsg(key)); }},
    {"delete key", [](HANDLE key) { return encoded(DeleteKeyReqMsg(key, Doomed)); }},
    {"set", [](HANDLE key) { return setText(key, "changing", Data); }},
    {"query", [](HANDLE key) { return encoded(QueryValueReqMsg(key, Name)); }},
    {"delete value", [](HANDLE key) { return encoded(DeleteValueReqMsg(key, Doomed)); }},
    {"enum key", [](HANDLE key) { return encoded(EnumKeyReqMsg(key, 0)); }},
    {"enum value", [](HANDLE key) { return encoded(EnumValueReqMsg(key, 0)); }},
    {"query info", [](HANDLE key) { return encoded(QueryInfoKeyReqMsg(key)); }},
    {"transaction", transaction},
    {"history", question},
};

/// How long a lasting failure lasts when the client hears nothing meanwhile.
constexpr int LastingMilliseconds = 5;

class DaemonFailures : public testing::Test {
protected:
    DaemonFailures()
    {
        takeOverMemory();                                      // before the store's first use
        EXPECT_NE(freopen("/dev/null", "w", stderr), nullptr); // thousands of lines that are meant to be there
    }

    using RawClientPtr = std::unique_ptr<RawClient>;
    RawClientPtr connect() const { return std::make_unique<RawClient>(m_folder / "socket"); }

    /// The daemon, all but its main function.
    struct Daemon {
        explicit Daemon(const TemporaryFolder& folder)
            : lock(folder / "store", "--store"), space(folder / "store"), writer(folder / "store"),
              store(folder / "store"), identity(folder / "store"), socket(folder / "socket"), check(folder / "store"),
              guard(writer, identity, space, check),
              server(socket.releaseDescriptor(), store, writer, obregd::Limits(), &guard)
        {
            check.stop(); // its calls are not those of a request
        }
        obregd::Lock lock;
        obregd::DiskSpace space;
        obregd::WritableStore writer;
        obregd::Store store;
        obregd::StoreIdentity identity;
        obregd::ListeningSocket socket;
        obregd::QuickCheck check;
        obregd::StoreGuard guard;
        obregd::Server server;
    };

    std::optional<REGSTATUS> send(RawClient& client, const std::string& text, const Attempt& attempt) const;
    bool run(const Request& request, const Attempt& attempt);

    const TemporaryFolder m_folder{Folder};
    RawClientPtr m_pIdle;
    HANDLE m_key = nullptr;
};

/// Sends a request and gives its reply's status; none for an error packet or the connection's end. A lasting failure
/// ends when nothing comes of it for a while.
std::optional<REGSTATUS> DaemonFailures::send(RawClient& client, const std::string& text, const Attempt& attempt) const
{
    try {
        client.send(packet(1, text));
        if (attempt.lasting && !client.hasMore(LastingMilliseconds))
            failnth::disarm();
        const auto reply = client.receive();
        EXPECT_TRUE(reply.second || attempt.failure.call == Call::Allocation) << "an error packet";
        if (reply.second)
            return static_cast<REGSTATUS>(std::stoul(reply.second->substr(8, 8), nullptr, 16));
    } catch (const std::runtime_error&) {
    }
    return std::nullopt;
}

/// One request with one failure planned. Returns whether the failure took place.
bool DaemonFailures::run(const Request& request, const Attempt& attempt)
{
    RawClientPtr pOther = connect();
    const std::string before = "before " + std::to_string(++g_round);
    EXPECT_EQ(pOther->set(m_key, "changing", before), 0u);
    pOther->call<DeleteKeyRespMsg>(DeleteKeyReqMsg(m_key, "a\\key\\that is not there"));
    EXPECT_EQ(pOther->set(m_key, Doomed, "x"), 0u);
    EXPECT_NE(pOther->create(Doomed, m_key), nullptr);
    RawClientPtr pClient = attempt.connected ? connect() : nullptr;
    if (attempt.connected) // the daemon has accepted it
        pClient->call<CloseKeyRespMsg>(CloseKeyReqMsg(m_key));

    attempt.arm();
    if (!attempt.connected)
        pClient = connect();
    const std::optional<REGSTATUS> status = send(*pClient, request.text(m_key), attempt);
    const bool reached = attempt.disarm();

    EXPECT_TRUE(status == 0u || (reached && attempt.mayFail()));
    pOther = connect(); // what the daemon did last for the old one may have met the failure
    const std::string now = pOther->query(m_key, "changing");
    const std::string told = pOther->query(Transactions, std::to_string(g_round));
    const bool transacts = request.text == transaction;
    EXPECT_EQ(transacts && now == Data, told.starts_with("done"));
    if (status) {
        EXPECT_TRUE(*status == 0 || *status == OBREG_STATUS_STORE_FULL || *status == OBREG_STATUS_STORE_FAILED)
            << std::hex << *status;
        const bool isSet = *status == 0 && (transacts || std::strcmp(request.pName, "set") == 0);
        EXPECT_EQ(now, isSet ? Data : before) << "of a write, as it was answered";
    }
    return reached;
}

TEST_F(DaemonFailures, AtEveryPoint)
{
    Daemon daemon(m_folder);
    std::thread thread([&] { EXPECT_NO_THROW(daemon.server.run()); });
    m_pIdle = connect();
    m_key = m_pIdle->create("K");
    m_pIdle->set(m_key, Name, "data");
    m_pIdle->create(Name, m_key);
    unsigned points = 0;
    for (const failnth::Failure& failure : failures) {
        const bool anyRequestWillDo = failure.call == Call::Accept || failure.call == Call::SocketOption;
        points += failnth::sweep(failure, std::span(requests, anyRequestWillDo ? 1 : std::size(requests)),
                                 [this](const Request& request, const Attempt& attempt) {
                                     bool reached = false;
                                     EXPECT_NO_THROW(reached = run(request, attempt));
                                     return reached;
                                 });
        EXPECT_EQ(m_pIdle->call<CloseKeyRespMsg>(CloseKeyReqMsg(m_key))->m_status, 0u) << "who asked for nothing";
        if (HasFailure())
            break;
    }
    std::printf("FIGURE daemon: %zu kinds of failure, at %u points of the requests\n", std::size(failures), points);
    kill(getpid(), SIGTERM);
    thread.join();
    EXPECT_TRUE(obregd::checkStore(m_folder / "store").problems.empty());
}

// A start that fails says so and spoils nothing for the next one.
TEST_F(DaemonFailures, WhileItStarts)
{
    const auto stride = static_cast<unsigned>(scaled(10)); // a start allocates thousands of times
    const failnth::Failure starting[] = {
        {"an allocation", Call::Allocation, ENOMEM, Victims::ThisThread, Effect::MayFail, FromThereOn, stride},
        {"the store's disk full", Call::StoreWrite, ENOSPC, Victims::ThisThread, Effect::MayFail, FromThereOn, stride},
        {"a write of the store", Call::StoreWrite, EIO, Victims::ThisThread, Effect::MayFail, FromThereOn, stride},
        {"a read of the store", Call::StoreRead, EIO, Victims::ThisThread, Effect::MayFail, FromThereOn, stride},
        {"socket", Call::Socket, EMFILE, Victims::ThisThread, Effect::MayFail},
        {"fcntl", Call::Fcntl, EMFILE, Victims::ThisThread, Effect::MayFail},
        {"watching a descriptor", Call::Poll, ENOMEM, Victims::ThisThread, Effect::MayFail},
    };
    const auto start = [](const Request&, const Attempt& attempt) {
        if (attempt.connected)
            return false;
        const TemporaryFolder folder(Folder);
        attempt.arm();
        try {
            const Daemon daemon(folder);
        } catch (const std::exception&) { // how it says so
        }
        const bool reached = attempt.disarm();
        EXPECT_NO_THROW(Daemon again(folder));
        EXPECT_TRUE(obregd::checkStore(folder / "store").problems.empty());
        return reached;
    };
    unsigned points = 0;
    for (const failnth::Failure& failure : starting)
        points += failnth::sweep(failure, std::span(requests, 1), start);
    std::printf("FIGURE daemon: failures at %u points of its start\n", points);
}

} // namespace
