#include "support/running_daemon.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "support/eventually.h"
#include "support/scripted_daemon.h"

extern char** environ;

RunningDaemon::RunningDaemon(std::string socketPath, std::string storePath, std::vector<std::string> moreOptions)
    : m_socketPath(std::move(socketPath)), m_storePath(std::move(storePath)), m_logPath(m_socketPath + ".stderr"),
      m_moreOptions(std::move(moreOptions))
{}

RunningDaemon::~RunningDaemon() { stop(SIGKILL); }

void RunningDaemon::start(const std::string& before)
{
    if (m_pid != -1)
        throw std::logic_error("the daemon runs already");
    std::string command =
        before + "; exec \"$OBREGD\" 2>" + m_logPath + " --socket " + m_socketPath + " --store " + m_storePath;
    for (const std::string& option : m_moreOptions)
        command += ' ' + option;
    std::filesystem::remove(m_logPath); // it would say that the daemon before is listening
    const char* const arguments[] = {"sh", "-c", command.c_str(), nullptr};
    if (posix_spawn(&m_pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(arguments), environ) != 0)
        throw std::runtime_error("there is no shell");

    bool listens = false;
    eventually([&] {
        listens = log().find("listening on") != std::string::npos;
        return listens || waitpid(m_pid, nullptr, WNOHANG) == m_pid;
    });
    if (!listens) {
        stop(SIGKILL);
        throw std::runtime_error("the daemon does not come up: " + log());
    }
}

int RunningDaemon::stop(int signal)
{
    if (m_pid == -1)
        return -1;
    kill(m_pid, signal);
    int status = -1;
    while (waitpid(m_pid, &status, 0) == -1 && errno == EINTR) {
    }
    m_pid = -1;
    return status;
}

std::string RunningDaemon::log() const
{
    std::ifstream file(m_logPath);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool RunningDaemon::logs(const std::string& text) const
{
    return eventually([&] { return log().find(text) != std::string::npos; });
}

FreshDaemon::FreshDaemon() : RunningDaemon(FixedSocketPath, "/var/opt/quorlin/ombrel/obregd/registry.db")
{
    std::filesystem::remove(m_storePath);
    start();
}
