// Where keys are: the key above each, the path from one key down to another, how deep they are. Keys that are deleted
// are found as long as the journal has their end.
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
    /// What is known of the keys below one: their places; none of a key that is not below it. No paths, with which many
    /// deep keys would fill the memory.
    struct Below {
        explicit Below(KeyId from) : top(from) {}
        const KeyId top;
        std::unordered_map<KeyId, std::optional<Place>> places{};
        size_t bytes = 0;  ///< that they take, about; when it is too much all is forgotten
        size_t looked = 0; ///< bytes that were looked at so far, about
    };

    explicit Places(SQLite::Database& database);

    /// Nothing when it is not known.
    std::optional<Place> of(KeyId id);
    /// The path to a key from the one of `known`; nothing when it is not below that.
    std::optional<std::string> pathBelow(KeyId id, Below& known);

private:
    SQLite::Statement m_place;
};

/// How deep a key is below its root: keys on the way down, and the bytes of their names, each with a separator.
struct Depth {
    size_t keys = 0;
    size_t bytes = 0;
};

/// Remembers how deep keys are, which does not change.
class Depths {
public:
    explicit Depths(SQLite::Database& database) : m_places(database) {}

    Depth of(KeyId id);
    /// Keys are gone that never were: their numbers may be used again.
    void clear() { m_known.clear(); }

private:
    Places m_places;
    std::unordered_map<KeyId, Depth> m_known;
};

/// A path and a name below it.
std::string joined(const std::string& path, const std::string& name);

} // namespace obregd

#endif
