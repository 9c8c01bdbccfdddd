// Where keys are: the key above each, and the path from one key down to another. Keys that are deleted are found as
// long as the journal has their end.
//
// Belongs to the connection that it is made with, and to its thread. Whatever fails throws SQLite::Exception.
#ifndef OBREG_DAEMON_STORE_PLACES_H
#define OBREG_DAEMON_STORE_PLACES_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <optional>
#include <string>
#include <unordered_map>

#include "daemon/tree.h"

namespace obregd {

inline constexpr size_t MaxLevels = 1024; ///< more than any path has: who counts up to it does not go in a circle

struct Place {
    KeyId parent; ///< 0 above a root
    std::string name;
};

class Places {
public:
    /// Paths from a key; none for a key that is not below it. Made with that key's own, which is empty.
    using Below = std::unordered_map<KeyId, std::optional<std::string>>;

    explicit Places(SQLite::Database& database);

    /// Nothing when it is not known.
    std::optional<Place> of(KeyId id);
    /// The path to a key from the one whose paths are known, which learn of it.
    const std::optional<std::string>& pathBelow(KeyId id, Below& known);

private:
    SQLite::Statement m_place;
};

/// A path and a name below it.
std::string joined(const std::string& path, const std::string& name);

} // namespace obregd

#endif
