// obregd: the reference registry daemon. See docs/daemon.md for what it decides.
#include <csignal>
#include <cstdio>
#include <exception>
#include <sys/resource.h>
#include <sys/stat.h>

#include "common/ipcint.h"
#include "daemon/files.h"
#include "daemon/log.h"
#include "daemon/options.h"
#include "daemon/serve/server.h"
#include "daemon/store/maintenance.h"
#include "daemon/systemd.h"

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

void serve(const obregd::Options& options)
{
    using namespace obregd;
    Descriptor activated = systemd::takeSocket();
    const LogThread logThread; // the environment is read: other threads may start
    std::optional<Lock> socketLock;
    if (activated.get() < 0) {
        makeFolder(folderOf(options.socketPath));
        socketLock.emplace(options.socketPath, "--socket");
    }
    makeFolder(folderOf(options.storePath));
    const Lock storeLock(options.storePath, "--store");
    WritableStore writableStore(options.storePath);
    Store store(options.storePath);
    const std::string socketPath = activated.get() < 0 ? options.socketPath : systemd::pathOf(activated);
    std::optional<ListeningSocket> own;
    const int listening = activated.get() < 0 ? own.emplace(socketPath).releaseDescriptor() : activated.release();
    Server server(listening, store, writableStore, options.limits);
    logLine(LOG_NOTICE, "listening on %s, storing in %s", socketPath.c_str(), options.storePath.c_str());
    systemd::notify("READY=1");
    server.run();
    systemd::notify("STOPPING=1");
    logLine(LOG_NOTICE, "stopped");
}

/// Says about the store what was asked; the exit status.
int maintain(const obregd::Options& options)
{
    const bool check = options.check;
    const std::string& store = options.storePath;
    const obregd::StoreReport report =
        check ? obregd::checkStore(store) : obregd::backUpStore(store, *options.backupPath);
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
    int exitCode = 0;
    const std::optional<obregd::Options> options = obregd::parseOptions(argc, argv, &exitCode);
    if (!options)
        return exitCode;
    CDebugLevel = options->verbosity;
    umask(0077); // the store and the locks are nobody else's
    const bool toServe = !options->check && !options->backupPath;
    if (toServe)
        obregd::openLog();
    std::signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    try {
        if (!toServe)
            return maintain(*options);
        serve(*options);
    } catch (const std::exception& failure) {
        if (toServe)
            obregd::logLine(LOG_ERR, "%s", failure.what());
        else
            std::fprintf(stderr, "obregd: %s\n", failure.what());
        return 1;
    }
    return 0;
}
