// How much of the store a user's tree may take.
//
// What counts is what is in the tree, whoever wrote it. Refused is only the tree's own user: root and the daemon's user
// write what they like there, and the machine's trees have no quota. A write that shrinks or keeps what is there is
// never refused.
//
// No state; any thread.
#ifndef OBREG_DAEMON_GOVERN_QUOTA_H
#define OBREG_DAEMON_GOVERN_QUOTA_H

#include <cstdint>

#include "daemon/govern/access.h"

namespace obregd {

/// What a tree may take. The defaults are far above what programs keep in a registry.
struct Quota {
    uint64_t bytes = uint64_t{1} << 30; ///< names of keys, names of values and value data
    uint64_t keys = 1'000'000;
};

/// What an owner's trees take.
struct Usage {
    uint64_t keys = 0;
    uint64_t bytes = 0;
    uint64_t numbers = 0; ///< key numbers that were ever given to keys of these trees, deleted ones included

    bool operator==(const Usage&) const = default;
};

/// Key numbers are never given out again, so nobody may use them up: this many, the last ones, are for root and the
/// daemon's user, and of those before a user may have been given at most half as many as are left.
inline constexpr int64_t ReservedKeyNumbers = int64_t{1} << 24;

/// Whether that many more numbers, of those that are left for everybody, may go to a tree.
constexpr bool leavesNumbers(const Usage& usage, uint64_t more, int64_t left)
{
    return left >= 0 && more <= static_cast<uint64_t>(left) &&
           (usage.numbers + more) * 2 <= static_cast<uint64_t>(left) - more;
}

/// Whether what a peer writes in an owner's tree may be refused.
inline bool isLimited(const Peer& peer, Owner owner) { return owner >= 0 && !mayWrite(peer, MachineOwner); }

} // namespace obregd

#endif
