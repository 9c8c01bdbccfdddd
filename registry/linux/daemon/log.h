// The daemon's log: one function, one line, to standard error and to syslog; once, where both lead to the journal.
//
// Any thread may log. Text that came from a client is never logged, only numbers about it, so nobody can forge a line.
#ifndef OBREG_DAEMON_LOG_H
#define OBREG_DAEMON_LOG_H

#include <syslog.h>

namespace obregd {

/// Names the process to syslog. Before the first log line.
void openLog();

/// Writes one line. priority is one of syslog's (LOG_ERR: an operator should act; LOG_WARNING: a client was cut off or
/// something was refused; LOG_NOTICE: start and stop; LOG_DEBUG: comings and goings, written only while CDebugLevel is
/// above 0). The text needs no newline.
void logLine(int priority, const char* pFormat, ...) __attribute__((format(printf, 2, 3)));

} // namespace obregd

#endif
