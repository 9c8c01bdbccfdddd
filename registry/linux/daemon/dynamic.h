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
//
// `Transactions` takes several writes as one: see plan.h for what is set there, and outcomes.h for what is told of it.
//
// `History` answers likewise a query of what has changed, by whom, and what was there before:
//
//     HANDLE FROM DIRECTION MOST SCOPE PATH        80000002 now before 100 tree Software\Acme
//
// the key's handle; a change's number, or `now`; `before` (changes before that number, newest first) or `after` (oldest
// first); how many changes at most; `key` or `tree`; and, perhaps, the path from there to the key that is meant, which
// need not be there any more. The data are strings again: first the number from which the next question goes on, that
// of the oldest change that is kept, and that of the last one; then, for each change, its number, time, uid, pid, what
// was done, the path from the asked key, the value's name, what was there before (docs/daemon.md tells how), and
// `secret` for a value of a secret key, separated by tabs.
//
// `Shared`, where trees are shared with other machines, has a key for each share: State ("connected", "reading" or
// "away: why"), Revision (of the engine, up to which all is here), Lag (milliseconds for which the engine was not
// reached) and Members (the engine's). A query of its value `Sync` is answered, with the revision, when all is here
// that the engine had when it was asked.
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
inline constexpr KeyId TransactionsId = DynamicId + 2;
inline constexpr KeyId HistoryId = DynamicId + 3;
inline constexpr KeyId SharedId = DynamicId + 4; ///< and behind it one for each share

/// The keys of HKEY_DYN_DATA, each with a handle of its own.
struct DynamicKey {
    KeyId id;
    uint32_t handle;
    const char* pName;
};
inline constexpr uint32_t TransactionsHandle = 0x80000011;
inline constexpr DynamicKey DynamicKeys[] = {{ChangesId, 0x80000010, "Changes"},
                                             {TransactionsId, TransactionsHandle, "Transactions"},
                                             {HistoryId, 0x80000012, "History"},
                                             {SharedId, 0x80000013, "Shared"}};
inline constexpr uint32_t FirstShareHandle = 0x80000020;
/// The key that a handle stands for, and the handle of a key; 0: of another key.
KeyId dynamicKey(HANDLE handle);
uint32_t dynamicHandle(KeyId id);
/// Which share a key tells of.
std::optional<size_t> shareOf(KeyId key);

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

/// What a query of History asks for. The key of `question` is left open.
struct ParsedHistory {
    uint32_t handle;
    HistoryQuestion question;
};
std::optional<ParsedHistory> parseHistory(const std::string& name);

/// The data of the answer to a query of Changes.
std::string answerText(const Told& told);
/// The data of the answer to one that ends waits.
std::string endedText(size_t waits);

/// The tree of DynamicId and the keys below it.
Tree& dynamicTree();

} // namespace obregd

#endif
