// The clock's part in the tool: giving up after --timeout, and ending a long look by Ctrl-C. Process-wide; call from
// the main thread.
#ifndef OBREG_TOOL_ALARM_H
#define OBREG_TOOL_ALARM_H

#include <string>

namespace obregtool {

/// From now on, ends the process with `message` on standard error and ExitNoDaemon when the time is over before the
/// next call. The library has no time-out of its own. 0 seconds: never.
void setTimeout(double seconds, const std::string& message);
/// Begins the time anew, or stops it: for verbs that go on for ever.
void restartTimeout();
void stopTimeout();

/// Makes SIGINT and SIGTERM end the loop of a verb instead of the process.
void catchInterrupts();
bool interrupted();
/// Sleeps; an interrupt ends it.
void pause(double seconds);

} // namespace obregtool

#endif
