// The real daemon for a test: starts the obregd program, kills it, starts it again.
//
// The program's path is in the environment variable OBREGD. What the daemon writes to standard error goes to a file
// beside its socket. POSIX and C++17 only, so that 32-bit tests can drive the 64-bit daemon. One thread at a time.
#ifndef OBREG_TESTS_RUNNING_DAEMON_H
#define OBREG_TESTS_RUNNING_DAEMON_H

#include <string>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/temporary_folder.h"

class RunningDaemon {
public:
    /// Does not start it yet. moreOptions go to the command line as they are.
    RunningDaemon(std::string socketPath, std::string storePath, std::vector<std::string> moreOptions = {});
    /// Kills it if it still runs. Files stay.
    ~RunningDaemon();
    RunningDaemon(const RunningDaemon&) = delete;
    RunningDaemon& operator=(const RunningDaemon&) = delete;

    /// Starts it and returns when it listens. Throws std::runtime_error with the daemon's own words when it ends
    /// instead, or does not listen within twenty seconds. The shell does `before` first; `$$` is the daemon's process.
    void start(const std::string& before = ":");

    /// Sends a signal and waits for the end. Returns the status as waitpid gives it; -1 when it was not running.
    int stop(int signal);

    pid_t pid() const { return m_pid; } ///< -1 while it does not run

    /// What it has written to standard error since the last start.
    std::string log() const;
    /// Whether it writes that text, now or within seconds: its log comes a moment after the fact.
    bool logs(const std::string& text) const;

protected:
    const std::string m_socketPath;
    const std::string m_storePath;

private:
    const std::string m_logPath;
    const std::vector<std::string> m_moreOptions;
    pid_t m_pid = -1;
};

/// A daemon where the library looks for it, started with an empty store.
class FreshDaemon : public RunningDaemon {
public:
    FreshDaemon();
};

/// A test's own daemon, not started yet, in a folder of its own.
class DaemonTest : public testing::Test {
protected:
    const TemporaryFolder m_folder;
    const std::string m_socket = m_folder / "socket";
    const std::string m_store = m_folder / "store";
    RunningDaemon m_daemon{m_socket, m_store};
};

#endif
