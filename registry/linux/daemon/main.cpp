// obregd: the reference registry daemon. See docs/daemon.md for what it decides.
#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <exception>
#include <malloc.h>
#include <map>
#include <sys/resource.h>
#include <sys/stat.h>

#include "common/ipcint.h"
#include "daemon/engine/sharing.h"
#include "daemon/figures.h"
#include "daemon/files.h"
#include "daemon/log.h"
#include "daemon/options.h"
#include "daemon/serve/server.h"
#include "daemon/serve/storeguard.h"
#include "daemon/store/compaction.h"
#include "daemon/store/diskspace.h"
#include "daemon/store/maintenance.h"
#include "daemon/store/quickcheck.h"
#include "daemon/systemd.h"
#include "standardstreams.h"

using namespace obregd;

namespace {

/// Each client takes a descriptor: have as many as the system allows.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Lets big buffers come from the system and go back to it one by one, and the others from few places, which keep what
/// is used again at once. Left to themselves these limits grow with the biggest buffer that there was.
void setUpMemory()
{
    mallopt(M_MMAP_THRESHOLD, int{8 * MiB});
    mallopt(M_TRIM_THRESHOLD, int{16 * MiB});
    mallopt(M_ARENA_MAX, 2);
}

/// Gives the system back what a peak has left behind; to be called now and then.
class MemoryReturn {
public:
    void operator()()
    {
        const uint64_t held = figureValues[static_cast<size_t>(Figure::BytesHeld)].load(std::memory_order_relaxed);
        m_peak = std::max(m_peak, held);
        if (m_peak < WorthReturning || held > m_peak / 4)
            return;
        malloc_trim(0);
        m_peak = held;
    }

private:
    static constexpr uint64_t WorthReturning = 16 * MiB;

    uint64_t m_peak = 0; // since the last return
};

/// Shows what the users' trees take among the figures; to be called now and then.
class UsageFigures {
public:
    explicit UsageFigures(Store& store) : m_store(store) {}

    void operator()()
    {
        const uint64_t commits = figureValues[static_cast<size_t>(Figure::Commits)].load(std::memory_order_relaxed);
        const auto now = std::chrono::steady_clock::now();
        if (m_commits == commits || now < m_notBefore)
            return;
        m_commits = commits;
        for (const auto& [owner, usage] : m_store.usages()) {
            if (owner < 0)
                continue;
            std::shared_ptr<UserCounts>& pCounts = m_counts[owner];
            if (pCounts == nullptr)
                pCounts = countsOf(static_cast<uid_t>(owner));
            set(*pCounts, UserFigure::Keys, usage.keys);
            set(*pCounts, UserFigure::Bytes, usage.bytes);
        }
        const auto end = std::chrono::steady_clock::now();
        m_notBefore = end + (end - now) * RestFactor;
    }

private:
    static void set(UserCounts& counts, UserFigure figure, uint64_t number)
    {
        counts[static_cast<size_t>(figure)].store(number, std::memory_order_relaxed);
    }

    static constexpr int RestFactor = 1000; // where there are many users: it is done on the thread that serves
    Store& m_store;
    std::chrono::steady_clock::time_point m_notBefore;
    uint64_t m_commits = ~uint64_t{0};
    std::map<Owner, std::shared_ptr<UserCounts>> m_counts;
};

/// What the serving thread does from time to time beside serving.
void addChores(Server& server, ListeningSocket& socket, Store& store, QuickCheck& check,
               std::optional<std::chrono::microseconds> watchdog)
{
    server.every(std::chrono::seconds(1), [&] { check.limit(); });
    server.every(std::chrono::seconds(1), UsageFigures(store));
    server.every(std::chrono::seconds(1), [&] {
        if (!server.isStopping() && socket.restore())
            server.listenOn(socket.releaseDescriptor());
    });
    server.every(std::chrono::seconds(1), MemoryReturn());
    if (watchdog)
        server.every(std::chrono::duration_cast<std::chrono::milliseconds>(*watchdog / 2),
                     [] { systemd::notify("WATCHDOG=1"); });
    server.onStop([] { systemd::notify("STOPPING=1"); });
}

void serve(const Options& options)
{
    Descriptor activated = systemd::takeSocket();
    const std::optional<std::chrono::microseconds> watchdog = systemd::takeWatchdog();
    const LogThread logThread; // the environment is as it stays: other threads may start
    std::optional<Lock> socketLock;
    if (activated.get() < 0) {
        makeFolder(folderOf(options.socketPath));
        socketLock.emplace(options.socketPath, "--socket");
    }
    makeFolder(folderOf(options.storePath));
    const StoreLock storeLock(options.storePath);
    DiskSpace diskSpace(options.storePath);
    WritableStore writableStore(options.storePath);
    writableStore.setQuota(options.quota);
    writableStore.journal().setSize(options.history);
    writableStore.setSecret(options.secrets);
    writableStore.setMaxLogPages(diskSpace.logPages());
    Store store(options.storePath);
    StoreIdentity storeIdentity(options.storePath);
    ListeningSocket socket =
        activated.get() < 0 ? ListeningSocket(options.socketPath) : ListeningSocket(std::move(activated));
    QuickCheck check(options.storePath);
    StoreGuard guard(writableStore, storeIdentity, diskSpace, check);
    std::optional<Sharing> sharing;
    if (!options.sharing.shares.empty()) {
        const std::vector<Share> shares = prepareShares(writableStore, options.sharing.shares);
        sharing.emplace(writableStore, loadEngine(options.sharing), shares, options.sharing.patience);
        setShareViews(sharing->views());
    }
    Server server(socket.releaseDescriptor(), store, writableStore, options.limits, &guard,
                  sharing ? &*sharing : nullptr);
    addChores(server, socket, store, check, watchdog);
    logLine(LOG_NOTICE, "listening on %s, storing in %s", socket.path().c_str(), options.storePath.c_str());
    systemd::notify("READY=1");
    server.run();
    logLine(LOG_NOTICE, "stopped");
}

int compact(const std::string& store)
{
    const Compaction done = compactStore(store);
    std::printf("%s: %" PRIu64 " KiB before, %" PRIu64 " KiB now%s\n", store.c_str(), done.before / 1024,
                done.after / 1024, done.isInFile ? "" : "; less once the daemon has moved its log into the file");
    return 0;
}

/// Does with the store what was asked, and says what came of it; the exit status.
int maintain(const Options& options)
{
    const bool check = options.check;
    const std::string& store = options.storePath;
    if (options.compact)
        return compact(store);
    const StoreReport report = check ? checkStore(store) : backUpStore(store, *options.backupPath);
    for (const std::string& problem : report.problems)
        std::printf("%s: %s\n", store.c_str(), problem.c_str());
    if (!report.problems.empty()) {
        std::printf("%s: unsound; stop the daemon and restore a backup\n", store.c_str());
        return 1;
    }
    std::printf("%s: %s, %s\n", (check ? store : *options.backupPath).c_str(), check ? "sound" : "copied and checked",
                report.summary().c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    fillStandardStreams();
    int exitCode = 0;
    const std::optional<Options> options = parseOptions(argc, argv, &exitCode);
    if (!options)
        return exitCode;
    CDebugLevel = options->verbosity;
    umask(0077); // the store and the locks are nobody else's
    const bool toServe = !options->check && !options->backupPath && !options->compact;
    if (toServe)
        openLog();
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a file at its limit is a full disk
    raiseDescriptorLimit();
    setUpMemory();
    try {
        if (!toServe)
            return maintain(*options);
        serve(*options);
    } catch (const std::exception& failure) {
        if (toServe)
            logLine(LOG_ERR, "%s", failure.what());
        else
            std::fprintf(stderr, "obregd: %s\n", failure.what());
        return 1;
    }
    return 0;
}
