// What comes from outside while the tool runs: the clock, for giving up after --timeout, and signals, for ending a long
// look or leaving nothing half done behind. Process-wide; call from the main thread.
#ifndef OBREG_TOOL_ALARM_H
#define OBREG_TOOL_ALARM_H

#include <string>

namespace obregtool {

/// From now on, ends the process with `message` on standard error and ExitNoDaemon when the time is over before the
/// next call. The library has no time-out of its own. 0 seconds: never.
void setTimeout(double seconds, const std::string& message);
/// Says what that means for a verb, whose time begins now.
void changeTimeout(const std::string& message, int exit);
/// Begins the time anew, or stops it: for verbs that go on for ever.
void restartTimeout();
void stopTimeout();

/// Makes the first SIGINT or SIGTERM end the loop of a verb instead of the process.
void catchInterrupts();
bool interrupted();
/// Waits until there is something in a descriptor; false when an interrupt comes first. Other threads block these.
bool waitReadable(int descriptor);

/// Lets the first Ctrl-C end long work in good order: from then on endIfInterrupted() throws. When that has not ended
/// the process some seconds later, because the daemon does not answer, or at the second one, it ends at once.
void letInterruptsEndWork();
/// Throws Failure with ExitInterrupted. Any thread.
void endIfInterrupted();

/// The file that is removed when --timeout or a signal ends the process; "" for none.
void removeWhenKilled(const std::string& path);

/// Sleeps; an interrupt ends it.
void pause(double seconds);

} // namespace obregtool

#endif
