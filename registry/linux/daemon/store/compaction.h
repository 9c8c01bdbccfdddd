// Gives the disk back what a store's file has and does not use.
//
// A store that was made for it (every new one is) gives its unused pages back in pieces, beside a daemon or without
// one. Each piece is a transaction of some ten milliseconds and is followed by a pause ten times as long, in which it
// is moved from the log into the file; so a write waits for one piece at most, and the log stays short. What is done
// stays done when it is stopped in between. Any other store is made for it first, which rewrites the file as a whole,
// once, under the store's lock: then no daemon may run.
//
// Needs the right to write the file: root's, or the daemon's user's. No state; any thread.
#ifndef OBREG_DAEMON_STORE_COMPACTION_H
#define OBREG_DAEMON_STORE_COMPACTION_H

#include <cstdint>
#include <string>

namespace obregd {

struct Compaction {
    uint64_t before = 0, after = 0; ///< the file's length in bytes
    bool isInFile = true;           ///< false: it becomes shorter once all of the log has been moved
};

/// Throws std::runtime_error with a message for the operator.
Compaction compactStore(const std::string& storePath);

} // namespace obregd

#endif
