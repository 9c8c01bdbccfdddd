// The daemon's log: one function, one line, to standard error and to syslog; once, where both lead to the journal.
//
// Any thread may log. Text that came from a client is never logged, only numbers about it, so nobody can forge a line.
#ifndef OBREG_DAEMON_LOG_H
#define OBREG_DAEMON_LOG_H

#include <chrono>
#include <optional>
#include <syslog.h>
#include <utility>

namespace obregd {

/// Names the process to syslog. Before the first log line.
void openLog();

/// Writes what is still to be written, for a second at most.
inline void endLog() {}

/// Writes one line. priority is one of syslog's (LOG_ERR: an operator should act; LOG_WARNING: a client was cut off or
/// something was refused; LOG_NOTICE: start and stop; LOG_DEBUG: comings and goings, written only while CDebugLevel is
/// above 0). The text needs no newline.
void logLine(int priority, const char* pFormat, ...) __attribute__((format(printf, 2, 3)));

/// What one user may cause to be logged: a few lines at once, then one now and then.
class LogLimit {
public:
    using Clock = std::chrono::steady_clock;
    /// Whether a line may be logged now: the number of those left out since the last one, or nothing.
    std::optional<size_t> allow(Clock::time_point now)
    {
        if (m_burst == 0 && now - m_last < std::chrono::seconds(10)) {
            ++m_leftOut;
            return std::nullopt;
        }
        m_burst -= m_burst != 0;
        m_last = now;
        return std::exchange(m_leftOut, 0);
    }

private:
    size_t m_burst = 10;
    size_t m_leftOut = 0;
    Clock::time_point m_last{};
};

} // namespace obregd

#endif
