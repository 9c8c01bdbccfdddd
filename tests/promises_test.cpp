// What the library promises beyond its answers: it can be unloaded, forked, left, cancelled, interrupted and exec'd
// past at any time. Each promise is tried on libobreg.so itself, loaded as an application loads a plug-in.
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "obreg/obreg.h"
#include "support/eventually.h"
#include "support/scale.h"
#include "support/scripted_daemon.h"

using namespace std::chrono_literals;

int CDebugLevel = 0; // for the codec that this program links; the library has its own

namespace {

HANDLE const key = reinterpret_cast<HANDLE>(uintptr_t{1});

class Library {
    void* const m_handle = dlopen(getenv("OBREG_LIBRARY"), RTLD_NOW | RTLD_LOCAL);

public:
    Library() { EXPECT_NE(m_handle, nullptr) << dlerror(); }
    ~Library() { dlclose(m_handle); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    /// A function or a variable that it exports.
    template <class Symbol>
    Symbol& symbol(const char* name) const
    {
        return *reinterpret_cast<Symbol*>(dlsym(m_handle, name));
    }

    decltype(OBRegCloseKey)& closeKey = symbol<decltype(OBRegCloseKey)>("OBRegCloseKey");
    decltype(OBRegSetValueExA)& setValue = symbol<decltype(OBRegSetValueExA)>("OBRegSetValueExA");
};

ScriptedDaemon::Script answering()
{
    const std::string reply = encoded(CloseKeyRespMsg(0));
    return ScriptedDaemon::answering([reply](const std::string&) { return reply; });
}

/// Waits for a child to exit by itself: its exit status, 1000 + its signal, or 2000 when it hung.
int outcomeOf(pid_t child)
{
    int status = 0;
    if (eventually([&] { return waitpid(child, &status, WNOHANG) == child; }))
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return 2000;
}

/// Runs one of the disabled tests below in a process of its own: its exit status. 124: it hung; over 128: it crashed.
int outcomeOf(const std::string& child)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command = "timeout 20 " + self +
                                " --gtest_also_run_disabled_tests --gtest_filter=Child.DISABLED_" + child +
                                " >/dev/null";
    return WEXITSTATUS(std::system(command.c_str()));
}

std::atomic<bool> readersEndSlowly{false};
const auto pPthreadExit = reinterpret_cast<decltype(&pthread_exit)>(dlsym(RTLD_NEXT, "pthread_exit"));

} // namespace

/// In place of the C library's: what a reader calls last of all.
extern "C" void pthread_exit(void* pResult)
{
    if (readersEndSlowly)
        std::this_thread::sleep_for(200ms);
    pPthreadExit(pResult);
    abort();
}

TEST(Load, ReadsItsEnvironment)
{
    const std::pair<const char*, int> cases[] = {
        {"", 1}, {"12abc", 0x12ABC}, {"xyz", 0}, {"-1", -1}, {"FFFFFFFFFF", INT32_MAX}};
    for (const auto& [setupTime, attempts] : cases) {
        setenv("OMBREL_MAX_REGIPC_SETUP_TIME", setupTime, 1);
        EXPECT_EQ(Library().symbol<int>("MaxIpcSetupTime"), attempts) << setupTime;
    }
    unsetenv("OMBREL_MAX_REGIPC_SETUP_TIME");
    EXPECT_EQ(Library().symbol<int>("MaxIpcSetupTime"), 1);
    EXPECT_FALSE(Library().symbol<bool>("DoNotBypassRegDaemon"));
    setenv("OMBREL_DO_NOT_BYPASS_REG_DAEMON", "0", 1);
    EXPECT_TRUE(Library().symbol<bool>("DoNotBypassRegDaemon"));
    unsetenv("OMBREL_DO_NOT_BYPASS_REG_DAEMON");
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
        ASSERT_EQ(dlopen(getenv("OBREG_LIBRARY"), RTLD_NOW | RTLD_NOLOAD), nullptr) << "cycle " << i;
        ASSERT_LT(std::chrono::steady_clock::now() - begin, 3s) << "the reader's end was not seen, cycle " << i;
    }
    std::printf("FIGURE unloads: %d\n", scaled(500));
    for (readersEndSlowly = true; readersEndSlowly; readersEndSlowly = false)
        ASSERT_EQ(Library().closeKey(key), 0u);
    std::this_thread::sleep_for(300ms); // a reader that was left behind would run in nothing now
}

// The first connection of the process, while a plug-in is loaded whose constructor calls too: there it holds the
// loader's lock.
TEST(Child, DISABLED_ConnectsWhileAPluginIsLoaded)
{
    Library library;
    std::thread loader([] { dlclose(dlopen(getenv("OBREG_PLUGIN"), RTLD_NOW)); }); // calls after 100 ms, each way
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(library.closeKey(key), 0u);
    loader.join();
}

TEST(Load, BesideAPlugin)
{
    const ScriptedDaemon daemon(answering());
    EXPECT_EQ(outcomeOf("ConnectsWhileAPluginIsLoaded"), 0);
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
    const auto call = [&] { return library.closeKey(key) == 0; };
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i)
        threads.emplace_back([&] {
            while (!stop)
                call();
        });
    const auto live = [&](bool withChild) {
        bool good = library.symbol<int>("ipcInitAttempts") == 0 && call();
        if (withChild) {
            const pid_t grandchild = fork();
            if (grandchild == 0)
                _exit(call() ? 0 : 1);
            good = good && outcomeOf(grandchild) == 0 && call();
        }
        _exit(good ? 0 : 1);
    };
    for (int i = 0; i < scaled(100) && !HasFailure(); ++i) {
        pid_t children[2]; // the second one while the parent's threads connect anew because of the first
        for (pid_t& child : children) {
            child = fork();
            if (child == 0)
                live(i % 10 == 0);
            std::this_thread::sleep_for(std::chrono::microseconds(i * 37 % 300));
        }
        for (const pid_t child : children)
            EXPECT_EQ(outcomeOf(child), 0) << "fork " << i;
    }
    std::printf("FIGURE forks: %d, and one in ten again in the child\n", 2 * scaled(100));
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(call());
}

TEST(Fork, WhileOthersLog)
{
#ifdef OBREG_SANITIZED
    GTEST_SKIP() << "a sanitizer's runtime takes locks of its own";
#endif
    Library library;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            while (!stop)
                library.closeKey(key); // there is no daemon: each call writes two lines
        });
    std::vector<pid_t> children;
    for (int i = 0; i < 20; ++i) {
        children.push_back(fork());
        if (children.back() == 0)
            _exit(library.closeKey(key) == OBREG_STATUS_REQUEST_FAILED ? 0 : 1);
    }
    for (const pid_t child : children)
        EXPECT_EQ(outcomeOf(child), 0);
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
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
            ASSERT_EQ(outcomeOf("ExitsWhileBusy"), 0) << "exit " << i;
        std::printf("FIGURE exits: %d\n", scaled(50));
    }
    setenv("OMBREL_MAX_REGIPC_SETUP_TIME", "A", 1); // ten seconds' wait for a daemon: nobody waits for its end
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(outcomeOf("ExitsWhileBusy"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s * Slower);
    unsetenv("OMBREL_MAX_REGIPC_SETUP_TIME");
    std::atomic<bool> ended{false};
    const ScriptedDaemon deaf([&](ScriptedDaemon::Peer&) { // accepts, and never reads nor answers
        while (!ended)
            std::this_thread::sleep_for(1ms);
    });
    EXPECT_EQ(outcomeOf("ExitsWhileBusy"), 0);
    ended = true;
}

TEST(Cancellation, NeverInsideACall)
{
    const ScriptedDaemon daemon(answering());
    Library library;
    const auto endless = [](void* pLibrary) -> void* {
        for (;; pthread_testcancel())
            EXPECT_EQ(static_cast<Library*>(pLibrary)->closeKey(key), 0u);
    };
    for (int i = 0; i < scaled(200); ++i) {
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, endless, &library), 0);
        std::this_thread::sleep_for(std::chrono::microseconds(i * 37 % 1000));
        pthread_cancel(thread);
        void* pResult = nullptr;
        ASSERT_EQ(pthread_join(thread, &pResult), 0);
        ASSERT_EQ(pResult, PTHREAD_CANCELED);
        ASSERT_EQ(library.closeKey(key), 0u);
    }
    std::printf("FIGURE cancellations: %d\n", scaled(200));
}

// What the library does when it is not called is not cancelled either: at a fork, an unload, an exit.
TEST(Child, DISABLED_LeavesWithACancellationPending)
{
    auto* pLibrary = new Library;
    EXPECT_EQ(pLibrary->closeKey(key), 0u);
    pthread_cancel(pthread_self());
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    delete pLibrary;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    EXPECT_EQ(outcomeOf(child), 0);
    static Library* const pAgain = new Library;
    EXPECT_EQ(pAgain->closeKey(key), 0u);
    fflush(stdout); // which is a cancellation point
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    exit(HasFailure() ? 4 : 3);
}

TEST(Cancellation, NeverAtForkUnloadAndExit)
{
    const ScriptedDaemon daemon(answering());
    EXPECT_EQ(outcomeOf("LeavesWithACancellationPending"), 3);
}

TEST(Signals, AreNotForTheReader) // what they do to a caller's transfers: failures/library_failures_test.cpp
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr); // for the daemon's threads
    const ScriptedDaemon daemon(answering());
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    Library library;
    ASSERT_EQ(library.closeKey(key), 0u);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    for (int i = 0; i < 100; ++i) {
        kill(getpid(), SIGUSR1); // ends the process if the reader takes it
        const timespec patience{10, 0};
        ASSERT_EQ(sigtimedwait(&set, nullptr, &patience), SIGUSR1);
    }
    ASSERT_EQ(library.closeKey(key), 0u);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    EXPECT_EQ(daemon.connections(), 1);
}

TEST(Exec, NoDescriptorSurvives)
{
    const ScriptedDaemon daemon(answering());
    Library library;
    ASSERT_EQ(library.closeKey(key), 0u);
    for (int fd = STDERR_FILENO + 1; fd < 1024; ++fd) {
        struct stat found;
        const bool survives = (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0;
        EXPECT_FALSE(survives && fstat(fd, &found) == 0 && S_ISSOCK(found.st_mode)) << fd;
    }
}
