#include "daemon/govern/access.h"

#include <charconv>
#include <unistd.h>

#include "obreg/roots.h"

namespace obregd {

namespace {

constexpr UINT32 Delete = 0x00010000;
constexpr UINT32 WriteDac = 0x00040000;
constexpr UINT32 WriteOwner = 0x00080000;
constexpr UINT32 GenericAll = 0x10000000;
constexpr UINT32 GenericWrite = 0x40000000;
constexpr UINT32 WriteBits =
    KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK | Delete | WriteDac | WriteOwner | GenericAll | GenericWrite;

} // namespace

bool mayWrite(const Peer& peer, Owner owner)
{
    static const uid_t own = geteuid();
    return owner != NobodysOwner && (peer.uid == 0 || peer.uid == own || owner == static_cast<Owner>(peer.uid));
}

bool asksToWrite(UINT32 access) { return (access & WriteBits) != 0; }

Owner ownerOfUserTree(std::string_view name)
{
    uid_t uid = 0;
    const char* const pEnd = name.data() + name.size();
    const auto [pStop, error] = std::from_chars(name.data(), pEnd, uid);
    const bool canonical = error == std::errc() && pStop == pEnd && (name.front() != '0' || name.size() == 1);
    return canonical ? static_cast<Owner>(uid) : MachineOwner;
}

} // namespace obregd
