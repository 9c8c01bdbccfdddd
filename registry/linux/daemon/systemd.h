// What systemd and the daemon have to say to each other: the socket that systemd listens on, "I am ready", "I am
// alive".
//
// These are a few lines of a documented and frozen protocol (environment variables and one datagram). They are written
// out here because libsystemd would be the daemon's largest dependency, for just this.
//
// take... are for the main thread, before others are started: the environment is changed. The others are for any
// thread.
#ifndef OBREG_DAEMON_SYSTEMD_H
#define OBREG_DAEMON_SYSTEMD_H

#include <chrono>
#include <optional>
#include <string>

#include "daemon/files.h"

namespace obregd::systemd {

/// Takes over the listening socket that systemd has opened for this process; an empty descriptor when it opened none.
/// The socket's file stays systemd's: it is neither made nor removed here. Throws std::runtime_error when what was
/// handed over is not one listening Unix-domain stream socket.
Descriptor takeSocket();

/// Tells systemd a state such as "READY=1". Does nothing when nobody asked to be told.
void notify(const char* pState);

/// How often systemd wants to be told "WATCHDOG=1" at the least; nothing when it does not watch this process.
std::optional<std::chrono::microseconds> takeWatchdog();

/// True when standard error leads to the journal, which is where syslog leads too.
bool standardErrorIsJournal();

} // namespace obregd::systemd

#endif
