// The command line: what the daemon is to do, where it listens and stores, and its limits.
#ifndef OBREG_DAEMON_OPTIONS_H
#define OBREG_DAEMON_OPTIONS_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "daemon/engine/sharingoptions.h"
#include "daemon/govern/quota.h"
#include "daemon/govern/secrecy.h"
#include "daemon/plan.h"

namespace obregd {

inline constexpr size_t MiB = size_t{1024} * 1024;

/// What one client, and all of them together, may make the daemon hold.
struct Limits {
    /// The longest request, in bytes. A connection that announces a longer one is closed.
    size_t maxPayload = 64 * MiB;
    /// Replies that wait for one client to take them. Beyond it that client is cut off, unless a single reply is all
    /// that waits.
    size_t maxQueued = 128 * MiB;
    /// Requests arriving, writes waiting for their commit and replies waiting to be taken, of all clients. Beyond it
    /// the user who holds most loses the connection that holds most.
    size_t maxHeld = 1024 * MiB;
    /// The same of one user's clients. Half of it in writes, and nothing more is read from them until some are done. At
    /// most maxHeld.
    size_t maxHeldPerUser = 512 * MiB;
    /// Connections of one user. Beyond it they are refused. 0: half of the descriptors that the daemon may have.
    size_t maxPerUser = 0;
    /// Requests of one user in a second. Beyond it they are refused. 0: as many as there are.
    size_t maxRequests = 1'000'000;
    /// Statements of a transaction. Beyond it is refused; root's may have ten times as many.
    size_t maxStatements = DefaultMaxStatements;
    /// Requests of one user's that wait for changes. Beyond it they are refused.
    size_t maxWatches = 16384;
    /// Seconds that a request may take to arrive, once it has begun. Beyond it the client is cut off.
    unsigned maxArrival = 60;
};

struct Options {
    std::string socketPath = "/var/opt/quorlin/ombrel/obregd/reg-socket";
    std::string storePath;                 ///< never empty after parseOptions
    bool check = false;                    ///< check the store instead of serving
    bool compact = false;                  ///< give the disk back what it does not use, instead of serving
    std::optional<std::string> backupPath; ///< copy the store there instead of serving
    Limits limits;
    Quota quota;
    uint64_t history = 64 * MiB;        ///< bytes of the journal; 0: what watchers need
    std::vector<SecretPattern> secrets; ///< keys of whose values the journal keeps no data
    SharingOptions sharing;
    int verbosity = 0;
};

/// Reads the command line. Nothing when the program is to end at once with *pExitCode: help was asked for, or the line
/// was wrong and a message says how.
std::optional<Options> parseOptions(int argc, const char* const* argv, int* pExitCode);

} // namespace obregd

#endif
