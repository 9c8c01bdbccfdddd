#include "alarm.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include "errors.h"
#include "output.h"

namespace obregtool {

namespace {

// Written before the handlers are in place, and read by them.
std::string timeoutMessage;
int timeoutExit = ExitNoDaemon;
itimerval timeout{};
std::string hangingMessage; // for an interrupt that the daemon leaves without an end
std::atomic<bool> workInterrupted{false};
volatile sig_atomic_t interruptCame = 0;

constexpr unsigned GraceSeconds = 5; // for the answers to what is in flight

char unfinishedFile[PATH_MAX];
volatile sig_atomic_t haveUnfinishedFile = 0;

void removeUnfinishedFile()
{
    if (haveUnfinishedFile != 0)
        unlink(unfinishedFile);
}

extern "C" void onAlarm(int /*signal*/)
{
    removeUnfinishedFile();
    const std::string& message = workInterrupted ? hangingMessage : timeoutMessage;
    [[maybe_unused]] const ssize_t heard = write(STDERR_FILENO, message.data(), message.size());
    _exit(workInterrupted ? ExitInterrupted : timeoutExit);
}

extern "C" void onKill(int signal)
{
    removeUnfinishedFile();
    raise(signal); // by default now
}

extern "C" void onInterrupt(int /*signal*/) { interruptCame = 1; }

void handle(int signal, void (*handler)(int));

extern "C" void onWorkInterrupt(int signal)
{
    workInterrupted = true;
    handle(signal, onKill);
    alarm(GraceSeconds);
}

void handle(int signal, void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // the second one ends the process
    sigaction(signal, &action, nullptr);
}

} // namespace

void setTimeout(double seconds, const std::string& message)
{
    double whole = 0;
    timeout.it_value.tv_usec = static_cast<suseconds_t>(std::modf(seconds, &whole) * 1e6);
    timeout.it_value.tv_sec = static_cast<time_t>(whole);
    if (seconds > 0 && whole == 0 && timeout.it_value.tv_usec == 0)
        timeout.it_value.tv_usec = 1; // 0 would be never
    timeoutMessage = message;
    handle(SIGALRM, onAlarm);
    restartTimeout();
}

void changeTimeout(const std::string& message, int exit)
{
    stopTimeout();
    timeoutMessage = message;
    timeoutExit = exit;
    restartTimeout();
}

void restartTimeout() { setitimer(ITIMER_REAL, &timeout, nullptr); }

void stopTimeout()
{
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
}

void catchInterrupts()
{
    for (const int signal : {SIGINT, SIGTERM})
        handle(signal, onInterrupt);
}

void removeWhenKilled(const std::string& path)
{
    haveUnfinishedFile = 0;
    if (path.empty() || path.size() >= sizeof(unfinishedFile))
        return;
    std::copy_n(path.c_str(), path.size() + 1, unfinishedFile);
    haveUnfinishedFile = 1;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        handle(signal, onKill);
}

bool interrupted() { return interruptCame != 0; }

bool waitReadable(int descriptor)
{
    sigset_t interrupts;
    sigset_t before;
    sigemptyset(&interrupts);
    for (const int signal : {SIGINT, SIGTERM})
        sigaddset(&interrupts, signal);
    sigprocmask(SIG_BLOCK, &interrupts, &before); // one that comes now is met by ppoll
    pollfd poller{descriptor, POLLIN, 0};
    const bool ready = !interrupted() && ppoll(&poller, 1, nullptr, &before) == 1;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return ready;
}

void letInterruptsEndWork()
{
    const bool json = !timeoutMessage.empty() && timeoutMessage.front() == '{';
    const Failure failure(ExitInterrupted, "interrupted, and the daemon does not answer", "what was written stays");
    hangingMessage = failureText(json, failure);
    handle(SIGALRM, onAlarm);
    handle(SIGINT, onWorkInterrupt);
}

void endIfInterrupted()
{
    if (workInterrupted)
        throw Failure(ExitInterrupted, "interrupted");
}

void pause(double seconds)
{
    double whole = 0;
    timespec time{};
    time.tv_nsec = static_cast<long>(std::modf(seconds, &whole) * 1e9);
    time.tv_sec = static_cast<time_t>(whole);
    stopTimeout();
    nanosleep(&time, nullptr);
    restartTimeout();
}

} // namespace obregtool
