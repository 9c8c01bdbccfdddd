// What HKEY_DYN_DATA holds: keys that the daemon makes on demand. Nothing in them is stored.
//
// `Changes` answers a query for a value whose name says what is watched:
//
//     HANDLE SINCE WAIT SCOPE [ID]        80000002 1041 60000 tree
//
// the key's handle (hexadecimal), the number of the last change that the client knows or `now`, the milliseconds that
// it waits for another one (at most ten minutes; 0: not at all), and `key` (the key's values and the list of its
// sub-keys) or `tree` (all below it as well). The data are strings (REG_MULTI_SZ): first the number up to which is
// told, and ` lost` behind it when changes are missing and what is watched is to be read anew; then, for each change,
// its number, what was done (key-made, key-deleted, value-set, value-deleted), the path from the watched key and the
// value's name, separated by tabs, which no name has.
//
// With an ID (a number but 0, hexadecimal, the client's choice) a wait can be ended: a query for the value `end ID` has
// all waits of that user and ID answered at once. Its own data are their number as the only string.
#ifndef OBREG_DAEMON_DYNAMIC_H
#define OBREG_DAEMON_DYNAMIC_H

#include <chrono>
#include <optional>
#include <string>

#include "daemon/store/store.h"

namespace obregd {

/// The keys' numbers: behind all that keys of the store can have.
inline constexpr KeyId DynamicId = LastKeyId + 1;
inline constexpr KeyId ChangesId = DynamicId + 1;

/// The keys of HKEY_DYN_DATA, each with a handle of its own.
struct DynamicKey {
    KeyId id;
    uint32_t handle;
    const char* pName;
};
inline constexpr DynamicKey DynamicKeys[] = {{ChangesId, 0x80000010, "Changes"}};

/// What a query of Changes asks for.
struct Wait {
    Watched watched;
    bool now; ///< only the last number
    std::chrono::milliseconds atMost;
    uint64_t id; ///< by which it is ended; 0: none
    bool ends;   ///< it ends the waits with its id, and says nothing else
};

/// The handle and what else a name says; nothing when it says no such thing. The key of `watched` is left open.
struct ParsedWait {
    uint32_t handle;
    Wait wait;
};
std::optional<ParsedWait> parseWait(const std::string& name);

/// The data of the answer.
std::string answerText(const Told& told);
/// The data of the answer to one that ends waits.
std::string endedText(size_t waits);

/// The tree of DynamicId and the keys below it.
Tree& dynamicTree();

} // namespace obregd

#endif
