// The daemon's log: one function, one line, to standard error and to syslog; once, where both lead to the journal.
//
// Logging never waits and needs no memory. A line goes to a queue of fixed size, and a thread of the log's own writes
// it: a terminal that was stopped, a pipe that nobody reads or a syslog that hangs holds up that thread and nobody
// else. What does not fit is left out, and the log says how much that was once it gets through again. Lines come out in
// the order in which they were logged.
//
// Any thread may log. Text that came from a client is never logged, only numbers about it, so nobody can forge a line.
#ifndef OBREG_DAEMON_LOG_H
#define OBREG_DAEMON_LOG_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <syslog.h>
#include <thread>
#include <utility>

namespace obregd {

/// Names the process to syslog. Before the first log line.
void openLog();

/// Logs one line. priority is one of syslog's (LOG_ERR: an operator should act; LOG_WARNING: a client was cut off or
/// something was refused; LOG_NOTICE: start and stop; LOG_DEBUG: comings and goings, written only while CDebugLevel is
/// above 0). The text needs no newline; what is longer than a kilobyte is cut.
void logLine(int priority, const char* pFormat, ...) __attribute__((format(printf, 2, 3)));

/// Waits until all that has been logged is written, but no longer than that. For whoever is about to end the process.
void flushLog(std::chrono::milliseconds atMost);

/// The thread that writes the lines, as long as this lives; one a process. Before and after, and when no thread is to
/// be had, whoever logs a line writes it himself. What is queued in the end is written, for at most a second; a thread
/// that hangs even then is left to itself, and nothing is logged any more.
class LogThread {
public:
    LogThread();
    ~LogThread();
    LogThread(const LogThread&) = delete;
    LogThread& operator=(const LogThread&) = delete;

private:
    std::thread m_thread;
};

/// What one cause, a user say, may make the daemon log: a burst of lines, then one now and then. One thread.
class LogLimit {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// Nothing when the line is to be left out; else the number of those left out since the last one that was not.
    std::optional<size_t> allow(Time now)
    {
        if (m_full - now > (Burst - 1) * Pause) {
            ++m_leftOut;
            return std::nullopt;
        }
        m_full = std::max(m_full, now) + Pause;
        return std::exchange(m_leftOut, 0);
    }

private:
    static constexpr int Burst = 10;
    static constexpr std::chrono::seconds Pause{10};

    Time m_full{}; // when a whole burst may come again; each line puts it off by a pause
    size_t m_leftOut = 0;
};

} // namespace obregd

#endif
