// The ten functions and the driver below them, against a scripted daemon: what is sent, what is returned, what is
// retried.
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/client.h"
#include "obreg/obreg.h"
#include "support/entries_of.h"
#include "support/log_capture.h"
#include "support/scripted_daemon.h"
#include "support/ten_calls.h"

using namespace std::chrono_literals;
using TenCalls::Function;
using TenCalls::Results;
using TenCalls::same;

extern "C" [[gnu::weak]] void __gcov_dump(); // NOLINT: there in a build that measures

namespace {

constexpr REGSTATUS DaemonError = 0xC7F20002; // of the error class
constexpr REGSTATUS DaemonNotice = 0x40000001;

HANDLE handle(uintptr_t value) { return reinterpret_cast<HANDLE>(value); }

const HANDLE key = handle(0x1F);

class Functions : public testing::Test {
protected:
    using Requests = std::vector<ScriptedDaemon::Request>;

    /// Starts a daemon that answers with what the replies have for a request's type, or else with an error packet.
    void startDaemon(const std::map<std::string, std::string>& replies = TenCalls::goodReplies(0))
    {
        m_daemon.emplace([this, replies](ScriptedDaemon::Peer& peer) {
            for (ScriptedDaemon::Request request; peer.receive(request);) {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_requests.push_back(request);
                const auto reply = replies.find(request.payload.substr(4, 2));
                if (reply != replies.end())
                    peer.reply(request.id, reply->second);
                else
                    peer.send(errorPacket(request.id));
            }
        });
    }

    /// What the daemon has received since the last call.
    Requests takeRequests()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_requests, {});
    }

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

    std::mutex m_mutex; // guards what follows
    Requests m_requests;
    std::optional<ScriptedDaemon> m_daemon;
};

} // namespace

TEST_F(Functions, SendTheirRequestsAndReturnTheirResults)
{
    startDaemon(TenCalls::goodReplies(DaemonNotice)); // no error: it is passed on, with the results
    Results results;
    std::set<std::string> names;
    for (const Function& function : TenCalls::all) {
        SCOPED_TRACE(function.pName);
        results.length = results.nameLength = 64;
        EXPECT_EQ(function.call(key, results), DaemonNotice);
        names.insert(results.name);
        const Requests requests = takeRequests();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].payload, function.request(key));
    }
    EXPECT_PRED2(
        same, results,
        (Results{handle(0x2A), handle(0x2B), 1, 3, 64, {1, 2, 3, 4, 5, 6}, 64, 0x01D2C3B4A5968778, "value", "data"}));
    EXPECT_EQ(names, (std::set<std::string>{"", "child", "value"}));
    EXPECT_EQ(ipcInitAttempts, 1);
    EXPECT_EQ(ipcInitSuccessfulAttempts, 1);
    EXPECT_EQ(logcapture::take(), std::vector<std::string>());
}

TEST_F(Functions, FailuresLeaveResultsAlone)
{
    std::map<std::string, std::string> nonsense;
    for (const auto& [type, reply] : TenCalls::goodReplies(0))
        nonsense[type] = "nonsense";
    const std::set<std::string> writeAnyway = {"OBRegOpenKeyExA", "OBRegCreateKeyExA", "OBRegQueryInfoKeyExA"};
    const struct {
        std::map<std::string, std::string> replies; // none: error packets
        REGSTATUS status;
        size_t sent;
        const char* pLogged;
        std::set<std::string> writing;
    } cases[] = {
        {TenCalls::goodReplies(DaemonError), DaemonError, 1, "15 OBReg -ReqReply- End, retStatus = 0\n", writeAnyway},
        {nonsense, OBREG_STATUS_REQUEST_FAILED, 1, "14 OBReg -%s- Error deserializing response\n", {}},
        {{}, OBREG_STATUS_REQUEST_FAILED, 3, "15 OBReg -%s- RPC error\n", {}},
    };
    for (const auto& test : cases) {
        IpcShutdown();
        startDaemon(test.replies);
        logcapture::setDebugLevel(1);
        for (const Function& function : TenCalls::all) {
            SCOPED_TRACE(std::string(function.pName) + test.pLogged);
            Results results;
            EXPECT_EQ(function.call(key, results), test.status);
            EXPECT_EQ(!same(results, Results()), test.writing.count(function.pName) != 0);
            char line[100];
            snprintf(line, sizeof(line), test.pLogged, function.pName);
            EXPECT_TRUE(logcapture::contains(line));
            logcapture::take();
            std::set<uint32_t> ids;
            for (const ScriptedDaemon::Request& request : takeRequests())
                ids.insert(request.id);
            EXPECT_EQ(ids.size(), test.sent) << "each is sent under an id of its own";
        }
    }
    EXPECT_EQ(m_daemon->connections(), 1); // an error packet does not break the connection
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
        OBRegOpenKeyExA(key, nullptr, 0, 0, &h),
        OBRegOpenKeyExA(key, "", 0, 0, nullptr),
        OBRegCreateKeyExA(key, nullptr, 0, nullptr, 0, 0, nullptr, &h, &n),
        OBRegCreateKeyExA(key, "", 0, nullptr, 0, 0, nullptr, nullptr, &n),
        OBRegDeleteKeyA(key, nullptr),
        OBRegSetValueExA(key, "", 0, 0, nullptr, 1),
        OBRegSetValueExA(key, "", 0, 0, text, 0),
        OBRegQueryValueExA(key, "", nullptr, &n, text, nullptr),
        OBRegDeleteValueA(key, nullptr),
        OBRegEnumKeyExA(key, 0, text, nullptr, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumKeyExA(key, 0, text, &negative, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumValueA(key, 0, text, nullptr, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumValueA(key, 0, text, &negative, nullptr, nullptr, nullptr, nullptr),
        OBRegEnumValueA(key, 0, text, &length, nullptr, nullptr, text, nullptr),
    };
    for (size_t i = 0; i < std::size(refused); ++i)
        EXPECT_EQ(refused[i], OBREG_STATUS_INVALID_PARAMETER) << "case " << i;
    Results results;
    for (const Function& function : TenCalls::all)
        EXPECT_EQ(function.call(nullptr, results), OBREG_STATUS_INVALID_PARAMETER) << function.pName;
    EXPECT_EQ(m_daemon->connections(), 0);
}

TEST_F(Functions, BuffersThatDoNotFit)
{
    startDaemon();
    // Name room and data room (-1: none given) against the name "value" and the data "data".
    const struct {
        int nameRoom, dataRoom;
        REGSTATUS status;
        Results results;
    } cases[] = {
        {6, 4, 0, {nullptr, nullptr, 0, 3, 4, {}, 5, 0, "value", "data"}},
        {5, 4, OBREG_STATUS_BUFFER_TOO_SMALL, {nullptr, nullptr, 0, 3, 4, {}, 6, 0, "", "data"}},
        {6, 3, OBREG_STATUS_BUFFER_TOO_SMALL, {nullptr, nullptr, 0, 3, 4, {}, 5, 0, "value", ""}},
        {0, 0, OBREG_STATUS_BUFFER_TOO_SMALL, {nullptr, nullptr, 0, 3, 4, {}, 6, 0, "", ""}},
        {-1, -1, 0, {nullptr, nullptr, 0, 3, 4, {}, 6, 0, "", ""}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::to_string(test.nameRoom) + " " + std::to_string(test.dataRoom));
        Results r;
        r.nameLength = test.nameRoom;
        r.length = static_cast<UINT32>(test.dataRoom);
        char* const pName = test.nameRoom < 0 ? nullptr : r.name;
        char* const pData = test.dataRoom < 0 ? nullptr : r.data;
        EXPECT_EQ(OBRegEnumValueA(key, 0, pName, &r.nameLength, nullptr, &r.type, pData, &r.length), test.status);
        EXPECT_PRED2(same, r, test.results);
    }
    Results r;
    r.length = 3;
    EXPECT_EQ(OBRegQueryValueExA(key, "v", nullptr, &r.type, r.data, &r.length), OBREG_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(OBRegQueryValueExA(key, nullptr, nullptr, &r.type, nullptr, nullptr), 0u);
    r.nameLength = 5;
    EXPECT_EQ(OBRegEnumKeyExA(key, 0, r.name, &r.nameLength, nullptr, nullptr, nullptr, nullptr),
              OBREG_STATUS_BUFFER_TOO_SMALL);
    EXPECT_PRED2(same, r, (Results{nullptr, nullptr, 0, 3, 4, {}, 6}));

    for (const auto& [given, sent] : {std::pair{"", "default"}, {"@", "default"}, {"@x", "@x"}, {" ", " "}}) {
        takeRequests();
        OBRegSetValueExA(key, given, 0, 0, r.data, 1);
        OBRegQueryValueExA(key, given, nullptr, nullptr, nullptr, nullptr);
        const Requests requests = takeRequests();
        EXPECT_EQ(requests[0].payload, encoded(SetValueReqMsg(key, sent, 0, r.data, 1)));
        EXPECT_EQ(requests[1].payload, encoded(QueryValueReqMsg(key, sent)));
    }
}

TEST_F(Functions, FirstSetupWaitsForTheDaemon)
{
    EXPECT_NEAR(secondsFor(OBREG_STATUS_REQUEST_FAILED), 1, 0.5); // one attempt, and a second's wait
    EXPECT_EQ(ipcInitAttempts, 1);
    EXPECT_TRUE(logcapture::contains("14 CChannel::init- Connection creation failed, error = 2\n"));
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

TEST_F(Functions, ForkChildClosesButNeverDestroysTheParentsChannel)
{
    // The reader has ended, so the process's is the last reference; the child may still not run the destructor.
    LiveChannels::awaitReaders(std::chrono::seconds(5)); // of the test before
    const size_t descriptors = entriesOf("/proc/self/fd");
    startDaemon();
    EXPECT_EQ(OBRegCloseKey(key), 0u);
    m_daemon.reset();
    LiveChannels::awaitReaders(std::chrono::seconds(5));
    EXPECT_EQ(numCChannelObjects, 1u);
    const pid_t child = [] {
        logcapture::take();
        logcapture::setDebugLevel(1);
        const pid_t pid = fork();
        logcapture::setDebugLevel(0);
        return pid;
    }();
    if (child == 0) {
        const std::vector<std::string> trace = logcapture::take();
        const bool told = trace.size() == 4 && trace[0] == "15 OBReg -IpcShutdown- Start\n" &&
                          trace[1].find("15 CChannel::closeChannel- Start, Obj = ") == 0 &&
                          trace[2] == "15 CChannel::closeChannel- End\n" && trace[3] == "15 OBReg -IpcShutdown- End\n";
        if (__gcov_dump != nullptr)
            __gcov_dump(); // what ran in the child counts too
        const bool closed = g_pSmartCChannel == nullptr && entriesOf("/proc/self/fd") == descriptors;
        _exit(closed && told && numCChannelObjects == 1 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}
