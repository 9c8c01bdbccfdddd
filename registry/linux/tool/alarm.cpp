#include "alarm.h"

#include <cmath>
#include <csignal>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

#include "errors.h"

namespace obregtool {

namespace {

// Written before the handlers are in place, and read by them.
std::string timeoutMessage;
itimerval timeout{};
volatile sig_atomic_t interruptCame = 0;

extern "C" void onAlarm(int /*signal*/)
{
    if (write(STDERR_FILENO, timeoutMessage.data(), timeoutMessage.size()) >= 0)
        _exit(ExitNoDaemon);
    _exit(ExitNoDaemon); // nobody hears it, which changes nothing
}

extern "C" void onInterrupt(int /*signal*/) { interruptCame = 1; }

void handle(int signal, void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

} // namespace

void setTimeout(double seconds, const std::string& message)
{
    double whole = 0;
    timeout.it_value.tv_usec = static_cast<suseconds_t>(std::modf(seconds, &whole) * 1e6);
    timeout.it_value.tv_sec = static_cast<time_t>(whole);
    timeoutMessage = message;
    handle(SIGALRM, onAlarm);
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

bool interrupted() { return interruptCame != 0; }

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
