// obreg::Watch: what it gives, how it ends, and that nothing is missed while the daemon is killed, restarted or cut
// off.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/wait.h>
#include <thread>

#include "obreg/watch.hpp"
#include "support/entries_of.h"
#include "support/eventually.h"
#include "support/running_daemon.h"
#include "support/scale.h"

using namespace obreg;
using namespace std::chrono_literals;

extern int ipcInitSuccessfulAttempts;

namespace {

thread_local bool noMemory = false; // for this thread

} // namespace

[[gnu::noinline]] void* operator new(size_t size)
{
    void* const pBlock = noMemory ? nullptr : std::malloc(size);
    return pBlock != nullptr ? pBlock : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* pBlock) noexcept { std::free(pBlock); }
[[gnu::noinline]] void operator delete(void* pBlock, size_t /*size*/) noexcept { std::free(pBlock); }

namespace {

class WatchFace : public testing::Test {
protected:
    static bool isReadable(int descriptor, int milliseconds)
    {
        pollfd poller{descriptor, POLLIN, 0};
        return poll(&poller, 1, milliseconds) == 1;
    }

    static std::string text(const Changes& told)
    {
        static constexpr const char* const signs[] = {"+", "-", "=", "~"};
        std::string all = told.lost ? "lost " : "";
        for (const Change& change : told.changes)
            all += signs[static_cast<int>(change.kind)] + change.path + ':' + change.name + ' ';
        return all;
    }

    FreshDaemon m_daemon;
    Key m_key = Key::create(localMachine(), "Watched");
};

TEST_F(WatchFace, GivesEachChangeOnceWhetherAskedForOrReported)
{
    for (const bool reported : {false, true}) {
        SCOPED_TRACE(reported);
        Watch watch = Watch::start(m_key, Watch::Scope::tree);
        Watch ofKey = Watch::start(m_key, Watch::Scope::key);
        const int descriptor = reported ? watch.descriptor() : -1;
        EXPECT_TRUE(!reported || (descriptor >= 3 && (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0));
        EXPECT_TRUE(watch.next(0ms).empty());
        EXPECT_FALSE(reported && isReadable(descriptor, 20));
        Key::create(m_key, "Below").set("", 1u);
        m_key.set("v", std::string(20, 'x'));
        EXPECT_TRUE(!reported || isReadable(descriptor, 10000));
        std::string told;
        for (int i = 0; i < 4 && told.size() < 27; ++i)
            told += text(watch.next(10s));
        EXPECT_EQ(told, "+Below: =Below:default =:v ");
        EXPECT_TRUE(watch.next(1ms).empty());
        EXPECT_FALSE(reported && isReadable(descriptor, 20));

        const UINT64 number = watch.number();
        watch = Watch();
        m_key.removeValue("v");
        m_key.remove("Below");
        EXPECT_EQ(text(Watch::start(m_key, Watch::Scope::tree, number).next()), "~:v ~Below:default -Below: ");
        EXPECT_EQ(text(Watch::start(m_key, Watch::Scope::tree, number + 1000).next()), "lost ");
        EXPECT_EQ(text(ofKey.next()), "+Below: =:v ~:v -Below: ");
    }
    for (int i = 0; i < 3000; ++i) // more than is told at once
        m_key.set(std::string(30, 'n') + std::to_string(i), 1u);
    Watch all = Watch::start(m_key, Watch::Scope::tree, 0);
    size_t sets = 0;
    for (Changes told = all.next(0ms); !told.empty(); told = all.next(0ms))
        sets += told.changes.size();
    EXPECT_EQ(sets, all.number()) << "the key's own making included";
}

TEST_F(WatchFace, FailsWithAWordAndGoesOn)
{
    std::error_code error;
    EXPECT_FALSE(Watch::start(performanceData(), Watch::Scope::key, std::nullopt, error));
    EXPECT_EQ(error, Status::badHandle);
    Watch empty;
    EXPECT_EQ((empty.next(0ms, error), error), Status::invalidParameter);
    Watch watch = Watch::start(Key::create(m_key, "Gone"));
    m_key.remove("Gone");
    EXPECT_EQ(text(watch.next()), "-: ");
    EXPECT_EQ((watch.next(1s, error), error), Status::keyDeleted);

    watch = Watch::start(m_key);
    Watch reporting = Watch::start(m_key);
    const int descriptor = reporting.descriptor();
    m_daemon.stop(SIGKILL);
    EXPECT_EQ((watch.next(0ms, error), error), Status::requestFailed);
    EXPECT_TRUE(watch.next(50ms, error).empty() && !error) << "there is still time for it to come back";
    EXPECT_TRUE(isReadable(descriptor, 20000)) << "that the daemon is away";
    EXPECT_EQ((reporting.next(0ms, error), error), Status::requestFailed);
    const auto begun = std::chrono::steady_clock::now();
    reporting = Watch();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 1s) << "ends without a daemon, too";
    m_daemon.start();
    m_key.set("v", 1u);
    EXPECT_EQ(text(watch.next()), "=:v ");
}

TEST_F(WatchFace, StopsAtOnce)
{
    for (int i = 0; i < 40; ++i) { // from before its question to long after it
        Watch watch = Watch::start(m_key);
        if (i % 2 != 0)
            watch.descriptor();
        std::thread waiting([&] { EXPECT_TRUE(watch.next().empty()); });
        std::this_thread::sleep_for(std::chrono::microseconds(i * i * 10));
        const auto begun = std::chrono::steady_clock::now();
        watch.stop();
        waiting.join();
        EXPECT_TRUE(i % 2 == 0 || isReadable(watch.descriptor(), 0));
        watch = Watch();
        EXPECT_LT(std::chrono::steady_clock::now() - begun, Slower * 500ms);
    }
}

// The threads of a Watch that is gone end when the daemon goes on.
TEST_F(WatchFace, StopsAtOnceWhileTheDaemonStandsStillOrNoMemoryIsLeft)
{
    const size_t threads = entriesOf("/proc/self/task");
    for (const bool reported : {false, true}) {
        SCOPED_TRACE(reported);
        Watch watch = Watch::start(m_key);
        const int descriptor = reported ? watch.descriptor() : -1;
        EXPECT_TRUE(watch.next(10ms).empty()); // its question is in the daemon
        kill(m_daemon.pid(), SIGSTOP);
        std::atomic<bool> ended{false};
        std::thread waiting([&] {
            EXPECT_TRUE(watch.next().empty());
            ended = true;
        });
        std::this_thread::sleep_for(20ms);
        const auto begun = std::chrono::steady_clock::now();
        noMemory = true;
        watch.stop();
        noMemory = false;
        EXPECT_TRUE(eventually([&] { return ended.load(); }));
        EXPECT_TRUE(!reported || isReadable(descriptor, 0));
        EXPECT_LT(std::chrono::steady_clock::now() - begun, Slower * 500ms);
        noMemory = true;
        watch = Watch();
        noMemory = false;
        EXPECT_LT(std::chrono::steady_clock::now() - begun, Slower * 2s);
        kill(m_daemon.pid(), SIGCONT);
        waiting.join();
    }
    EXPECT_TRUE(eventually([&] { return entriesOf("/proc/self/task") <= threads; }));
}

TEST_F(WatchFace, IsTheParentsAfterAFork)
{
    Watch watch = Watch::start(m_key);
    const int descriptor = watch.descriptor();
    const pid_t child = fork();
    if (child == 0) {
        std::error_code error;
        watch.next(0ms, error);
        const bool refused = error == Status::invalidParameter;
        watch.stop();
        watch = Watch(); // nobody to join here
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(isReadable(descriptor, 20));
    m_key.set("v", 1u);
    EXPECT_TRUE(isReadable(descriptor, 10000));
    EXPECT_EQ(text(watch.next()), "=:v ");
}

// The shared connection is cut again and again while questions are in a daemon that lives on (a fork's child ends it),
// and every third time the daemon is killed, while eight threads write and sixteen watch: blocking, reported by a
// descriptor, and as programs that are started again.
TEST_F(WatchFace, EachWatcherSeesEachChangeOnceAndInOrderOverCutsAndKills)
{
    const int cuts = scaled(60);
    const int connections = ipcInitSuccessfulAttempts;
    std::atomic<bool> over{false};
    std::atomic<UINT64> end{UINT64_MAX};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&over, key = Key::create(m_key, "W" + std::to_string(i))] {
            std::error_code error;
            for (unsigned count = 0; !over; ++count)
                key.set("v", count, error);
        });
    std::vector<UINT64> seen(16, 0);
    std::vector<std::string> wrong(seen.size());
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&, i] {
            Watch watch;
            std::error_code error;
            for (int descriptor = -1; seen[i] < end && wrong[i].empty();) {
                if (!watch) {
                    watch = Watch::start(localMachine(), Watch::Scope::tree, seen[i], error);
                    descriptor = watch && i % 3 == 1 ? watch.descriptor() : -1;
                    continue;
                }
                if (descriptor >= 0 && !isReadable(descriptor, 100))
                    continue;
                const Changes told = watch.next(100ms, error);
                if (told.lost || (error && error != Status::requestFailed))
                    wrong[i] = "lost, or " + error.message();
                for (const Change& change : told.changes)
                    if (change.number != ++seen[i] && wrong[i].empty())
                        wrong[i] = std::to_string(change.number) + " and not " + std::to_string(seen[i]);
                if (i % 3 == 2)
                    watch = Watch();
            }
        });
    for (int i = 0; i < cuts; ++i) {
        std::this_thread::sleep_for(Slower * std::chrono::microseconds(5000 + i * 7919 % 30000));
        if (i % 3 != 0) {
            if (const pid_t child = fork(); child == 0)
                _exit(0); // its parent connects anew
            else
                waitpid(child, nullptr, 0);
            continue;
        }
        m_daemon.stop(SIGKILL);
        m_daemon.start();
    }
    over = true;
    for (size_t i = 0; i < 8; ++i)
        threads[i].join();
    m_key.set("last", 1u);
    end = Watch::start(localMachine()).number();
    for (size_t i = 8; i < threads.size(); ++i)
        threads[i].join();
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(wrong[i], "") << i;
        EXPECT_EQ(seen[i], end) << i;
    }
    EXPECT_GT(end, static_cast<UINT64>(cuts));
    EXPECT_GE(ipcInitSuccessfulAttempts - connections, cuts) << "each cut was felt";
    std::printf("FIGURE watch: %d cuts, a third of them kills; %zu watchers saw %llu changes each, once and in order\n",
                cuts, seen.size(), static_cast<unsigned long long>(end));
}

} // namespace
