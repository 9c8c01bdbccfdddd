#include "support/running_daemon.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "support/scripted_daemon.h"

extern char** environ;

namespace {

constexpr char FixedStorePath[] = "/var/opt/quorlin/ombrel/obregd/registry.db";
constexpr int WaitSeconds = 10;
constexpr int PollsPerSecond = 500;

} // namespace

RunningDaemon::RunningDaemon(std::string socketPath, std::string storePath, std::vector<std::string> moreOptions)
    : m_socketPath(std::move(socketPath)), m_storePath(std::move(storePath)), m_logPath(m_socketPath + ".stderr"),
      m_moreOptions(std::move(moreOptions))
{}

RunningDaemon::~RunningDaemon() { stop(SIGKILL); }

void RunningDaemon::start()
{
    const char* const pProgram = std::getenv("OBREGD");
    if (pProgram == nullptr)
        throw std::runtime_error("set the environment variable OBREGD to the path of the obregd program");
    if (m_pid != -1)
        throw std::logic_error("the daemon runs already");

    std::vector<std::string> words = {pProgram, "--socket", m_socketPath, "--store", m_storePath};
    words.insert(words.end(), m_moreOptions.begin(), m_moreOptions.end());
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int error = posix_spawn(&m_pid, pProgram, &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        m_pid = -1;
        throw std::runtime_error(std::string(pProgram) + ": cannot be started: " + std::strerror(error));
    }

    for (int i = 0; i < WaitSeconds * PollsPerSecond; ++i) {
        if (log().find("listening on") != std::string::npos)
            return;
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
            m_pid = -1;
            throw std::runtime_error("the daemon ended: " + log());
        }
        usleep(1000000 / PollsPerSecond);
    }
    stop(SIGKILL);
    throw std::runtime_error("the daemon does not come up: " + log());
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
    for (int i = 0; i < WaitSeconds * PollsPerSecond; ++i) {
        if (log().find(text) != std::string::npos)
            return true;
        usleep(1000000 / PollsPerSecond);
    }
    return false;
}

FreshDaemon::FreshDaemon() : RunningDaemon(FixedSocketPath, FixedStorePath)
{
    std::filesystem::remove(FixedStorePath);
    start();
}
