// What the store says of itself beside the entries, worked out anew from the entries: for a check, and to begin with.
//
// Reads the whole store, key by key, in little memory. Any thread, with its own connection.
#ifndef OBREG_DAEMON_STORE_FACTS_H
#define OBREG_DAEMON_STORE_FACTS_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <functional>
#include <map>

#include "daemon/govern/quota.h"
#include "daemon/store/lengths.h"
#include "daemon/tree.h"

namespace obregd {

/// Calls `see` for each key, in the order of their numbers, with the lengths that it says it has and those that it has.
/// Returns what each owner's trees take; `numbers` are the keys that are there.
std::map<Owner, Usage> workOut(SQLite::Database& database,
                               const std::function<void(KeyId, const Lengths& said, const Lengths& found)>& see);

/// What the store says that each owner's trees take.
std::map<Owner, Usage> usageSaid(SQLite::Database& database);

/// The lengths in a row, from that column on.
Lengths lengthsAt(const SQLite::Statement& row, int column);

} // namespace obregd

#endif
