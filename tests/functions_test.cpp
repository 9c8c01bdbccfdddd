// The ten functions and the driver below them, against a scripted daemon: what is sent, what is returned, what is
// retried.
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/client.h"
#include "obreg/obreg.h"
#include "support/log_capture.h"
#include "support/scripted_daemon.h"
#include "support/ten_calls.h"

using namespace std::chrono_literals;
using TenCalls::goodReplies;

extern "C" [[gnu::weak]] void __gcov_dump(); // NOLINT: there in a build that measures

namespace {

constexpr REGSTATUS DaemonError = 0xC7F20002; // of the error class
constexpr REGSTATUS DaemonNotice = 0x40000001;

HANDLE handle(uintptr_t value) { return reinterpret_cast<HANDLE>(value); }
const HANDLE key = handle(0x1F);

/// One call of each function with every argument given, and where its results go.
struct Results {
    HANDLE opened = nullptr, created = nullptr;
    UINT32 disposition = 0, type = 0, length = 8, figures[6] = {};
    int nameLength = 8;
    UINT64 time = 0;
    char name[8] = {}, data[8] = {};
};

struct Function {
    const char* name; // as the log has it
    REGSTATUS (*call)(Results&);
    std::string request; // without padding
};

const std::vector<Function>& functions()
{
    static const std::vector<Function> all = {
        {"OBRegOpenKeyExA", [](Results& r) { return OBRegOpenKeyExA(key, "a\\b", 1, 2, &r.opened); },
         "Type07\r\nParentKeyHandle =0x1f\r\nFlags =00000001\r\nAccess =00000002\r\nKeyName =a\\b\r\n\r\n"},
        {"OBRegCreateKeyExA",
         [](Results& r) { return OBRegCreateKeyExA(key, "", 9, nullptr, 1, 2, nullptr, &r.created, &r.disposition); },
         "Type02\r\nParentKeyHandle =0x1f\r\nFlags =00000001\r\nAccess =00000002\r\nKeyName =\r\n\r\n"},
        {"OBRegCloseKey", [](Results&) { return OBRegCloseKey(key); }, "Type01\r\nKeyHandle =0x1f\r\n\r\n"},
        {"OBRegDeleteKeyA", [](Results&) { return OBRegDeleteKeyA(key, "a"); },
         "Type03\r\nParentKeyHandle =0x1f\r\nKeyName =a\r\n\r\n"},
        {"OBRegSetValueExA", [](Results& r) { return OBRegSetValueExA(key, "v", 9, 3, r.name, 2); },
         std::string("Type09\r\nKeyHandle =0x1f\r\nValueType =00000003\r\nValueName =v\r\n\r\n\0\0", 64)},
        {"OBRegQueryValueExA",
         [](Results& r) { return OBRegQueryValueExA(key, "v", nullptr, &r.type, r.data, &r.length); },
         "Type08\r\nKeyHandle =0x1f\r\nValueName =v\r\n\r\n"},
        {"OBRegDeleteValueA", [](Results&) { return OBRegDeleteValueA(key, "@"); },
         "Type04\r\nKeyHandle =0x1f\r\nValueName =@\r\n\r\n"},
        {"OBRegEnumKeyExA",
         [](Results& r) { return OBRegEnumKeyExA(key, 7, r.name, &r.nameLength, nullptr, nullptr, nullptr, &r.time); },
         "Type05\r\nKeyHandle =0x1f\r\nIndex =00000007\r\n\r\n"},
        {"OBRegEnumValueA",
         [](Results& r) { return OBRegEnumValueA(key, 7, r.name, &r.nameLength, nullptr, &r.type, r.data, &r.length); },
         "Type06\r\nKeyHandle =0x1f\r\nIndex =00000007\r\n\r\n"},
        {"OBRegQueryInfoKeyExA",
         [](Results& r) {
             auto& f = r.figures;
             return OBRegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &f[0], &f[1], &f[2], &f[3], &f[4], &f[5],
                                       nullptr, &r.time);
         },
         "Type0A\r\nKeyHandle =0x1f\r\n\r\n"},
    };
    return all;
}

/// The results as one text, to compare with.
std::string shown(const Results& r)
{
    char text[300];
    snprintf(text, sizeof(text), "%p %p %x %x %x %d %llx '%.7s' '%.4s' %x%x%x%x%x%x", r.opened, r.created,
             r.disposition, r.type, r.length, r.nameLength, static_cast<unsigned long long>(r.time), r.name, r.data,
             r.figures[0], r.figures[1], r.figures[2], r.figures[3], r.figures[4], r.figures[5]);
    return text;
}

class Functions : public testing::Test {
protected:
    /// Starts a daemon whose replies are m_replies; what it receives is kept in m_requests.
    void startDaemon(REGSTATUS status = 0)
    {
        m_replies = goodReplies(status);
        m_daemon.emplace(ScriptedDaemon::answering([this](const std::string& request) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request);
            return m_replies[request.substr(4, 2)];
        }));
    }

    /// What the daemon has received since the last call.
    std::vector<std::string> takeRequests()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_requests, {});
    }

    void startDaemon(ScriptedDaemon::Script script) { m_daemon.emplace(std::move(script)); }

    void SetUp() override
    {
        MaxIpcSetupTime = 1;
        ipcInitAttempts = ipcInitSuccessfulAttempts = 0;
        logcapture::take();
    }

    void TearDown() override
    {
        IpcShutdown();
        m_daemon.reset();
        logcapture::setDebugLevel(0);
    }

    static double secondsFor(REGSTATUS expected)
    {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(OBRegCloseKey(key), expected);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

    std::mutex m_mutex; // guards the two that follow while the daemon runs
    std::map<std::string, std::string> m_replies;
    std::vector<std::string> m_requests;
    std::optional<ScriptedDaemon> m_daemon;
};

} // namespace

TEST_F(Functions, SendTheirRequestsAndReturnTheirResults)
{
    startDaemon(DaemonNotice); // a daemon's status that is no error is passed on, with the results
    Results results;
    for (const Function& function : functions()) {
        SCOPED_TRACE(function.name);
        if (std::string(function.name) == "OBRegEnumValueA") {
            EXPECT_EQ(shown(results), "0x2a 0x2b 1 3 4 5 1d2c3b4a5968778 'child' 'data' 000000");
            results.nameLength = 8;
            results.length = 8;
        }
        EXPECT_EQ(function.call(results), DaemonNotice);
        const std::vector<std::string> requests = takeRequests();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].substr(0, function.request.size()), function.request);
        EXPECT_EQ(requests[0].find_first_not_of('\0', function.request.size()), std::string::npos);
    }
    EXPECT_EQ(shown(results), "0x2a 0x2b 1 3 4 5 1d2c3b4a5968778 'value' 'data' 123456");
    EXPECT_EQ(ipcInitAttempts, 1);
    EXPECT_EQ(ipcInitSuccessfulAttempts, 1);
    EXPECT_EQ(logcapture::take(), std::vector<std::string>());
}

TEST_F(Functions, ErrorsLeaveResultsAlone)
{
    startDaemon(DaemonError);
    for (const Function& function : functions()) {
        SCOPED_TRACE(function.name);
        Results results;
        EXPECT_EQ(function.call(results), DaemonError);
        const std::string name = function.name;
        const bool writes = name == "OBRegOpenKeyExA" || name == "OBRegCreateKeyExA" || name == "OBRegQueryInfoKeyExA";
        EXPECT_EQ(shown(results) != shown(Results()), writes);
    }
    // Replies that are no responses, then error packets: the library's own failure, named in the log.
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& reply : m_replies)
            reply.second = "nonsense";
    }
    logcapture::take();
    for (const Function& function : functions()) {
        Results results;
        EXPECT_EQ(function.call(results), OBREG_STATUS_REQUEST_FAILED);
        EXPECT_EQ(shown(results), shown(Results()));
        EXPECT_EQ(logcapture::take().back(),
                  std::string("14 OBReg -") + function.name + "- Error deserializing response\n");
    }
    std::mutex idsMutex;
    std::vector<uint32_t> ids;
    IpcShutdown();
    m_daemon.reset();
    startDaemon([&](ScriptedDaemon::Peer& peer) {
        for (ScriptedDaemon::Request request; peer.receive(request);) {
            {
                const std::lock_guard<std::mutex> lock(idsMutex);
                ids.push_back(request.id);
            }
            peer.error(request.id);
        }
    });
    logcapture::setDebugLevel(1);
    for (const Function& function : functions()) {
        Results results;
        EXPECT_EQ(function.call(results), OBREG_STATUS_REQUEST_FAILED);
        EXPECT_EQ(shown(results), shown(Results()));
        const std::lock_guard<std::mutex> lock(idsMutex);
        ASSERT_EQ(ids.size(), 3u); // sent three times, each under an id of its own
        EXPECT_TRUE(ids[0] != ids[1] && ids[1] != ids[2]);
        ids.clear();
        EXPECT_TRUE(logcapture::contains(std::string("15 OBReg -") + function.name + "- RPC error\n"));
        logcapture::take();
    }
    EXPECT_EQ(ipcInitAttempts, 2); // an error packet does not break the connection
    m_daemon.reset();              // before what its script uses
}

TEST_F(Functions, RefuseBadArguments)
{
    startDaemon();
    HANDLE h = nullptr;
    UINT32 n = 4;
    int length = 4;
    int negative = -1;
    char text[4] = {};
    const REGSTATUS refused[] = {
        OBRegOpenKeyExA(nullptr, "", 0, 0, &h),
        OBRegOpenKeyExA(key, nullptr, 0, 0, &h),
        OBRegOpenKeyExA(key, "", 0, 0, nullptr),
        OBRegCreateKeyExA(nullptr, "", 0, nullptr, 0, 0, nullptr, &h, &n),
        OBRegCreateKeyExA(key, nullptr, 0, nullptr, 0, 0, nullptr, &h, &n),
        OBRegCreateKeyExA(key, "", 0, nullptr, 0, 0, nullptr, nullptr, &n),
        OBRegCloseKey(nullptr),
        OBRegDeleteKeyA(nullptr, ""),
        OBRegDeleteKeyA(key, nullptr),
        OBRegSetValueExA(nullptr, "", 0, 0, text, 1),
        OBRegSetValueExA(key, "", 0, 0, nullptr, 1),
        OBRegSetValueExA(key, "", 0, 0, text, 0),
        OBRegQueryValueExA(nullptr, "", nullptr, &n, text, &n),
        OBRegQueryValueExA(key, "", nullptr, &n, text, nullptr),
        OBRegDeleteValueA(nullptr, ""),
        OBRegDeleteValueA(key, nullptr),
        OBRegEnumKeyExA(nullptr, 0, text, &length, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumKeyExA(key, 0, text, nullptr, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumKeyExA(key, 0, text, &negative, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumValueA(nullptr, 0, text, &length, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumValueA(key, 0, text, nullptr, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumValueA(key, 0, text, &negative, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumValueA(key, 0, text, &length, nullptr, nullptr, text, nullptr),
        OBRegQueryInfoKeyA(nullptr, nullptr, nullptr, nullptr, &n, &n, &n, &n, &n, &n, nullptr, nullptr),
    };
    for (size_t i = 0; i < std::size(refused); ++i)
        EXPECT_EQ(refused[i], OBREG_STATUS_INVALID_PARAMETER) << "case " << i;
    EXPECT_EQ(m_daemon->connections(), 0);
    EXPECT_EQ(logcapture::take(), std::vector<std::string>());
}

TEST_F(Functions, BuffersThatDoNotFit)
{
    startDaemon();
    // Name room and data room (-1: none given) against the name "value" and the data "data".
    const struct {
        int nameRoom, dataRoom;
        REGSTATUS status;
        int nameLength;
        const char *name, *data;
    } cases[] = {
        {6, 4, 0, 5, "value", "data"},
        {5, 4, OBREG_STATUS_BUFFER_TOO_SMALL, 6, "", "data"},
        {6, 3, OBREG_STATUS_BUFFER_TOO_SMALL, 5, "value", ""},
        {0, 0, OBREG_STATUS_BUFFER_TOO_SMALL, 6, "", ""},
        {-1, 4, 0, 6, "", "data"},
        {6, -1, 0, 5, "value", ""},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::to_string(test.nameRoom) + " " + std::to_string(test.dataRoom));
        char name[8] = {};
        char data[8] = {};
        int nameLength = test.nameRoom;
        auto length = static_cast<UINT32>(test.dataRoom);
        UINT32 type = 0;
        char* const pData = test.dataRoom < 0 ? nullptr : data;
        EXPECT_EQ(
            OBRegEnumValueA(key, 0, test.nameRoom < 0 ? nullptr : name, &nameLength, nullptr, &type, pData, &length),
            test.status);
        EXPECT_EQ(nameLength, test.nameLength);
        EXPECT_STREQ(name, test.name);
        EXPECT_STREQ(data, test.data);
        EXPECT_EQ(length, 4u);
        EXPECT_EQ(type, 3u);

        memset(data, 0, sizeof(data));
        length = static_cast<UINT32>(test.dataRoom);
        type = 0;
        const bool fits = test.dataRoom < 0 || test.dataRoom >= 4;
        EXPECT_EQ(OBRegQueryValueExA(key, "v", nullptr, &type, pData, &length),
                  fits ? 0 : OBREG_STATUS_BUFFER_TOO_SMALL);
        EXPECT_STREQ(data, test.data);
        EXPECT_EQ(length, 4u);
        EXPECT_EQ(type, 3u);

        int keyLength = test.nameRoom;
        const bool copied = test.nameRoom > 5;
        EXPECT_EQ(
            OBRegEnumKeyExA(key, 0, test.nameRoom < 0 ? nullptr : name, &keyLength, nullptr, nullptr, nullptr, nullptr),
            copied || test.nameRoom < 0 ? 0 : OBREG_STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(keyLength, copied ? 5 : 6);
    }
    UINT32 type = 0;
    EXPECT_EQ(OBRegQueryValueExA(key, nullptr, nullptr, &type, nullptr, nullptr), 0u);
    EXPECT_EQ(type, 3u);

    const std::pair<const char*, const char*> names[] = {
        {nullptr, "default"}, {"", "default"}, {"@", "default"}, {"@x", "@x"}, {" ", " "}};
    for (const auto& name : names) {
        takeRequests();
        char data = 1;
        OBRegSetValueExA(key, name.first, 0, 0, &data, 1);
        OBRegQueryValueExA(key, name.first, nullptr, nullptr, nullptr, nullptr);
        for (const std::string& request : takeRequests())
            EXPECT_NE(request.find(std::string("ValueName =") + name.second + "\r\n"), std::string::npos) << request;
    }
}

TEST_F(Functions, FirstSetupWaitsForTheDaemon)
{
    EXPECT_NEAR(secondsFor(OBREG_STATUS_REQUEST_FAILED), 1, 0.5); // one attempt, and a second's wait
    EXPECT_EQ(ipcInitAttempts, 1);
    EXPECT_NEAR(secondsFor(OBREG_STATUS_REQUEST_FAILED), 0, 0.5); // one attempt
    EXPECT_EQ(ipcInitAttempts, 2);

    ipcInitAttempts = 0;
    MaxIpcSetupTime = 0;
    EXPECT_NEAR(secondsFor(OBREG_STATUS_REQUEST_FAILED), 0, 0.5);
    EXPECT_EQ(ipcInitAttempts, 0);

    MaxIpcSetupTime = 3;
    std::thread starter([this] {
        std::this_thread::sleep_for(1500ms);
        startDaemon();
    });
    EXPECT_NEAR(secondsFor(0), 2, 0.5);
    starter.join();
    EXPECT_EQ(ipcInitAttempts, 3);
    EXPECT_EQ(ipcInitSuccessfulAttempts, 1);

    registryEngineInitialized = true;
    EXPECT_EQ(OBRegCloseKey(key), OBREG_STATUS_REQUEST_FAILED);
    registryEngineInitialized = false;
    EXPECT_EQ(OBRegCloseKey(key), 0u);
    EXPECT_EQ(ipcInitAttempts, 3);
}

TEST_F(Functions, LostConnectionsAreReplaced)
{
    // Cuts every connection at its second request: the request is sent again over the next one.
    const std::string reply = encoded(CloseKeyRespMsg(0));
    startDaemon([&](ScriptedDaemon::Peer& peer) {
        ScriptedDaemon::Request request;
        peer.receive(request);
        peer.reply(request.id, reply);
        peer.receive(request);
    });
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(OBRegCloseKey(key), 0u);
    EXPECT_EQ(m_daemon->connections(), 10);

    m_daemon.reset(); // a restart between two requests
    EXPECT_EQ(secondsFor(OBREG_STATUS_REQUEST_FAILED) < 0.5, true);
    startDaemon();
    EXPECT_EQ(OBRegCloseKey(key), 0u);
}

TEST_F(Functions, ForkChildNeverDestroysTheParentsChannel)
{
    // The reader has ended, so the process's is the last reference; the child may still not run the destructor.
    startDaemon();
    EXPECT_EQ(OBRegCloseKey(key), 0u);
    m_daemon.reset();
    LiveChannels::awaitReaders(5000);
    EXPECT_EQ(numCChannelObjects, 1u);
    const pid_t child = fork();
    if (child == 0) {
        if (__gcov_dump != nullptr)
            __gcov_dump(); // what ran in the child counts too
        _exit(g_pSmartCChannel == nullptr && numCChannelObjects == 1 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(Functions, RepliesOfAnyLength)
{
    std::atomic<size_t> size{0};
    startDaemon(ScriptedDaemon::answering([&](const std::string&) { return std::string(size, 'x'); }));
    char request[] = "request";
    for (const size_t length : {size_t{0}, size_t{1}, size_t{64} << 20}) {
        size = length;
        char* pReply = nullptr;
        int replyLength = -1;
        ASSERT_EQ(ReqReply(request, 7, &pReply, &replyLength), 0);
        const std::unique_ptr<char[]> owner(pReply);
        ASSERT_NE(pReply, nullptr);
        EXPECT_EQ(static_cast<size_t>(replyLength), length);
        EXPECT_TRUE(length == 0 || (pReply[0] == 'x' && memcmp(pReply, pReply + 1, length - 1) == 0));
    }
    m_daemon.reset(); // before what its script uses
}
