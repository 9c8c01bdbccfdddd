// What the library promises beyond its answers: it can be unloaded, forked, left, cancelled, interrupted and exec'd
// past at any time. Each promise is tried on libobreg.so itself, loaded as an application loads a plug-in.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "obreg/obreg.h"
#include "support/scale.h"
#include "support/scripted_daemon.h"

using namespace std::chrono_literals;

int CDebugLevel = 0; // for the codec that this program links; the library has its own

namespace {

HANDLE const key = reinterpret_cast<HANDLE>(uintptr_t{1});

class Library {
public:
    Library() : m_handle(dlopen(getenv("OBREG_LIBRARY"), RTLD_NOW | RTLD_LOCAL))
    {
        if (m_handle == nullptr)
            throw std::runtime_error(dlerror());
        closeKey = function<decltype(closeKey)>("OBRegCloseKey");
        setValue = function<decltype(setValue)>("OBRegSetValueExA");
        queryValue = function<decltype(queryValue)>("OBRegQueryValueExA");
    }
    ~Library() { dlclose(m_handle); }

    template <class Function>
    Function function(const char* name)
    {
        return reinterpret_cast<Function>(dlsym(m_handle, name));
    }
    template <class Value>
    Value value(const char* name)
    {
        return *static_cast<Value*>(dlsym(m_handle, name));
    }

    decltype(&OBRegCloseKey) closeKey;
    decltype(&OBRegSetValueExA) setValue;
    decltype(&OBRegQueryValueExA) queryValue;

private:
    void* const m_handle;
};

bool isMapped()
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.find("/libobreg.so") != std::string::npos)
            return true;
    return false;
}

/// Descriptors that a program exec'd now would get.
int inheritableDescriptors()
{
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        count += flags != -1 && (flags & FD_CLOEXEC) == 0;
    }
    return count;
}

ScriptedDaemon::Script answering()
{
    const std::string closed = encoded(CloseKeyRespMsg(0));
    const std::string value = encoded(QueryValueRespMsg(0, 3, std::string(3 << 20, 'v').data(), 3 << 20));
    return ScriptedDaemon::answering(
        [=](const std::string& request) { return request.compare(0, 6, "Type01") == 0 ? closed : value; });
}

/// Runs `work` on `count` threads until the end of the scope; it is to return at once when asked to stop.
class Threads {
public:
    template <class Work>
    Threads(int count, Work work)
    {
        for (int i = 0; i < count; ++i)
            m_threads.emplace_back([this, work, i] {
                while (!m_stop)
                    work(i);
            });
    }
    ~Threads() { join(); }
    void join()
    {
        m_stop = true;
        for (std::thread& thread : m_threads)
            if (thread.joinable())
                thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

/// Waits for a child to exit by itself: its exit status, 1000 + its signal, or 2000 when it hung.
int outcomeOf(pid_t child)
{
    for (int i = 0; i < 20000; ++i) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        std::this_thread::sleep_for(1ms);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return 2000;
}

/// Runs one of the DISABLED_ tests below in a process of its own.
int runInChild(const char* test)
{
    const std::string filter = std::string("--gtest_filter=Child.DISABLED_") + test;
    char* const args[] = {const_cast<char*>("child"), const_cast<char*>(filter.c_str()),
                          const_cast<char*>("--gtest_also_run_disabled_tests"), const_cast<char*>("--gtest_brief=1"),
                          nullptr};
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const int error = posix_spawn(&child, "/proc/self/exe", &quiet, nullptr, args, environ);
    posix_spawn_file_actions_destroy(&quiet);
    return error != 0 ? error : outcomeOf(child);
}

} // namespace

TEST(Load, ReadsItsEnvironment)
{
    const struct {
        const char *setupTime, *bypass;
        int attempts;
        bool doNotBypass;
    } cases[] = {{nullptr, nullptr, 1, false},
                 {"", "", 1, true},
                 {"10", "0", 16, true},
                 {"0xA", nullptr, 10, false},
                 {"12abc", nullptr, 0x12ABC, false},
                 {"xyz", nullptr, 0, false},
                 {"-1", nullptr, -1, false},
                 {"FFFFFFFFFF", nullptr, INT32_MAX, false}};
    for (const auto& test : cases) {
        SCOPED_TRACE(test.setupTime ? test.setupTime : "none");
        for (const auto& variable : {std::pair("OMBREL_MAX_REGIPC_SETUP_TIME", test.setupTime),
                                     std::pair("OMBREL_DO_NOT_BYPASS_REG_DAEMON", test.bypass)})
            variable.second ? setenv(variable.first, variable.second, 1) : unsetenv(variable.first);
        Library library;
        EXPECT_EQ(library.value<int>("MaxIpcSetupTime"), test.attempts);
        EXPECT_EQ(library.value<bool>("DoNotBypassRegDaemon"), test.doNotBypass);
        EXPECT_EQ(library.value<int>("CDebugLevel") + library.value<int>("CDebugDaemon"), 0);
        EXPECT_FALSE(library.value<bool>("registryEngineInitialized"));
    }
    unsetenv("OMBREL_MAX_REGIPC_SETUP_TIME");
    unsetenv("OMBREL_DO_NOT_BYPASS_REG_DAEMON");
    EXPECT_FALSE(isMapped());
}

TEST(Unload, EveryCycleReallyUnloads)
{
    const ScriptedDaemon daemon(answering());
    for (int i = 0; i < scaled(500); ++i) {
        const auto begin = std::chrono::steady_clock::now();
        {
            Library library;
            ASSERT_EQ(library.closeKey(key), 0u);
        }
        ASSERT_FALSE(isMapped()) << "cycle " << i;
        ASSERT_LT(std::chrono::steady_clock::now() - begin, 3s) << "the reader's end was not seen, cycle " << i;
    }
    std::printf("FIGURE unloads: %d\n", scaled(500));
}

TEST(Fork, ChildrenAndParentGoOn)
{
#ifdef OBREG_SANITIZED
    // Both runtimes take locks at each thread's start that a thread of the parent may have held at the fork:
    // ThreadSanitizer gives up, AddressSanitizer waits for ever in dl_iterate_phdr.
    GTEST_SKIP() << "a sanitizer's runtime cannot make threads in the child of a process that had several";
#endif
    const ScriptedDaemon daemon(answering());
    Library library;
    std::atomic<int> done[16] = {};
    Threads threads(16, [&](int i) { done[i] += library.closeKey(key) == 0; });
    const auto call = [&] { return library.closeKey(key) == 0; };
    const auto live = [&](bool withChild) {
        bool good = library.value<int>("ipcInitAttempts") == 0 && call();
        if (withChild) {
            const pid_t grandchild = fork();
            if (grandchild == 0)
                _exit(call() ? 0 : 1);
            good = good && outcomeOf(grandchild) == 0 && call();
        }
        _exit(good ? 0 : 1);
    };
    for (int i = 0; i < scaled(100); ++i) {
        pid_t children[2]; // the second one while the parent's threads connect anew because of the first
        for (pid_t& child : children) {
            child = fork();
            if (child == 0)
                live(i % 10 == 0);
            std::this_thread::sleep_for(std::chrono::microseconds(i * 37 % 300));
        }
        for (const pid_t child : children)
            ASSERT_EQ(outcomeOf(child), 0) << "fork " << i;
    }
    std::printf("FIGURE forks: %d, and one in ten again in the child\n", 2 * scaled(100));
    for (auto& count : done) { // every thread goes on
        const int before = count;
        for (int i = 0; i < 5000 && count == before; ++i)
            std::this_thread::sleep_for(1ms);
        EXPECT_GT(count, before);
    }
}

// Exits with eight threads in the middle of calls. The first calls are long: a daemon that does not read holds them up.
TEST(Child, DISABLED_ExitsWhileBusy)
{
    static Library* const pLibrary = new Library;
    static std::string& data = *new std::string(3 << 20, 'd'); // never destroyed
    for (int i = 0; i < 8; ++i)
        std::thread([] {
            for (auto length = static_cast<UINT32>(data.size());; length = 1)
                pLibrary->setValue(key, "v", 0, 3, data.data(), length);
        }).detach();
    std::this_thread::sleep_for(std::chrono::microseconds(1000 + getpid() % 7 * 700));
    exit(0);
}

TEST(Exit, WithCallsInFlight)
{
    {
        const ScriptedDaemon daemon(answering());
        for (int i = 0; i < scaled(50); ++i)
            ASSERT_EQ(runInChild("ExitsWhileBusy"), 0) << "exit " << i;
        std::printf("FIGURE exits: %d\n", scaled(50));
    }
    std::atomic<bool> ended{false};
    const ScriptedDaemon deaf([&](ScriptedDaemon::Peer&) { // accepts, and never reads nor answers
        while (!ended)
            std::this_thread::sleep_for(1ms);
    });
    EXPECT_EQ(runInChild("ExitsWhileBusy"), 0);
    ended = true;
}

TEST(Exit, WhileWaitingForADaemon)
{
    setenv("OMBREL_MAX_REGIPC_SETUP_TIME", "A", 1);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(runInChild("ExitsWhileBusy"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s * Slower);
    unsetenv("OMBREL_MAX_REGIPC_SETUP_TIME");
}

TEST(Cancellation, NeverInsideACall)
{
    const ScriptedDaemon daemon(answering());
    struct {
        Library library;
        std::atomic<int> wrong{0};
    } shared;
    const auto endless = [](void* p) -> void* {
        for (auto& all = *static_cast<decltype(shared)*>(p);;) {
            all.wrong += all.library.closeKey(key) != 0;
            pthread_testcancel();
        }
    };
    for (int i = 0; i < scaled(200); ++i) {
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, endless, &shared), 0);
        std::this_thread::sleep_for(std::chrono::microseconds(i * 37 % 1000));
        pthread_cancel(thread);
        void* pResult = nullptr;
        ASSERT_EQ(pthread_join(thread, &pResult), 0);
        ASSERT_EQ(pResult, PTHREAD_CANCELED);
        ASSERT_EQ(shared.library.closeKey(key), 0u);
    }
    EXPECT_EQ(shared.wrong, 0);
    std::printf("FIGURE cancellations: %d\n", scaled(200));
}

namespace {

std::atomic<int> signalsSeen{0};
std::atomic<bool> signalOnReader{false};

void onSignal(int)
{
    const int savedErrno = errno;
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    signalOnReader = signalOnReader || strcmp(name, "obreg-reader") == 0;
    ++signalsSeen;
    errno = savedErrno;
}

} // namespace

TEST(Signals, DoNotBreakAnExchange)
{
    const ScriptedDaemon daemon(answering());
    Library library;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    struct sigaction before;
    sigaction(SIGALRM, &action, &before);
    itimerval everyMillisecond = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
    // First with the signal blocked on this thread, so that any other thread that takes it gets it; then here.
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    ASSERT_EQ(library.closeKey(key), 0u);
    std::vector<char> data(3 << 20);
    for (const int how : {SIG_BLOCK, SIG_UNBLOCK}) {
        pthread_sigmask(how, &alarmOnly, nullptr);
        for (int i = 0; i < scaled(50) || (how == SIG_UNBLOCK && signalsSeen < 20); ++i) {
            auto length = static_cast<UINT32>(data.size());
            ASSERT_EQ(library.queryValue(key, "v", nullptr, nullptr, data.data(), &length), 0u);
        }
    }
    everyMillisecond = {};
    setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_FALSE(signalOnReader);
    std::printf("FIGURE signals: %d\n", signalsSeen.load());
    EXPECT_EQ(daemon.connections(), 1); // no connection was lost
}

TEST(Signals, NorDoesAStop)
{
    const std::string self = std::to_string(getpid());
    const std::string stopAndGoOn = "(kill -STOP " + self + "; sleep 0.02; kill -CONT " + self + ")";
    const ScriptedDaemon daemon([&](ScriptedDaemon::Peer& peer) {
        ScriptedDaemon::Request request;
        while (peer.receive(request)) {
            const std::string packet = ScriptedDaemon::Peer::packet(request.id, encoded(CloseKeyRespMsg(0)));
            for (const size_t cut : {size_t{20}, size_t{60}}) { // in the header and in the payload
                peer.send(packet.substr(cut == 20 ? 0 : 20, cut == 20 ? 20 : 40));
                EXPECT_EQ(system(stopAndGoOn.c_str()), 0); // only another process can wake this one
            }
            peer.send(packet.substr(60));
        }
    });
    Library library;
    EXPECT_EQ(library.closeKey(key), 0u);
    EXPECT_EQ(daemon.connections(), 1);
}

TEST(Exec, NoDescriptorSurvives)
{
    const ScriptedDaemon daemon(answering());
    Library library;
    const int before = inheritableDescriptors();
    ASSERT_EQ(library.closeKey(key), 0u);
    EXPECT_EQ(inheritableDescriptors(), before);
}
