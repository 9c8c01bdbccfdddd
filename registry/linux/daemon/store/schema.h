// The store's file: what is in it, and making, checking or upgrading it before it is used.
//
// Format 1 had the two tables of keys and values. Format 2 keeps the greatest lengths with each key and has two tables
// more: usage, what the trees of each owner take, and leftover, keys that are deleted but whose values are still to be
// cleared away. Format 3 has the journal (journal.h) and the tokens of transactions (tokens.h), and finds the keys that
// are marked as secret (secrets.h). A file of an earlier format is copied beside itself and upgraded where it is; one
// of a later format is refused.
#ifndef OBREG_DAEMON_STORE_SCHEMA_H
#define OBREG_DAEMON_STORE_SCHEMA_H

#include <string>

namespace SQLite {
class Database;
}

namespace obregd {

inline constexpr int StoreFormat = 3;

/// Makes the file with its tables and roots when there is none, else makes sure that it is one of ours and of this
/// format. Throws std::runtime_error with a message for the operator. Returns path.
const std::string& prepareStoreFile(const std::string& path);

/// Whether it is one of ours, of whatever format.
bool isStore(SQLite::Database& database);

} // namespace obregd

#endif
