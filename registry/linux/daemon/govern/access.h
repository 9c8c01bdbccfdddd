// Who may change what. Everybody reads everything; the right to write belongs to a tree.
//
// Stateless; any thread.
#ifndef OBREG_DAEMON_GOVERN_ACCESS_H
#define OBREG_DAEMON_GOVERN_ACCESS_H

#include <cstdint>
#include <string_view>
#include <sys/types.h>

#include "obreg/obreg.h"

namespace obregd {

/// The process at the other end of a connection, as the kernel vouched for it when it connected.
struct Peer {
    uid_t uid;
    pid_t pid;
};

/// The user whose tree a key belongs to: a uid, or MachineOwner for the trees that belong to no user. Kept with each
/// key, so that a check needs no walk to the root.
using Owner = int64_t;
inline constexpr Owner MachineOwner = -1;
inline constexpr Owner NobodysOwner = -2; ///< of what nobody may write, not even root

/// True for the owner of the tree, for root and for the daemon's own user.
bool mayWrite(const Peer& peer, Owner owner);

/// True when the access bits of an open or create ask for a right that changes something. "The most I may have" is
/// never more than the peer has.
bool asksToWrite(UINT32 access);

/// The owner of the tree that a direct sub-key of the users' root begins: the name is a uid in decimal without leading
/// zeros. Other names begin trees of no user.
Owner ownerOfUserTree(std::string_view name);

} // namespace obregd

#endif
