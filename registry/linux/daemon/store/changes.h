// What has changed at a key, or anywhere below it, since a change of a certain number: the journal, asked by a watcher.
//
// Belongs to a Store and its thread. A key of a brief Store is not looked for among many changes: that throws TooLong.
#ifndef OBREG_DAEMON_STORE_CHANGES_H
#define OBREG_DAEMON_STORE_CHANGES_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <cstdint>
#include <optional>
#include <string>

#include "daemon/store/journal.h"
#include "daemon/store/places.h"
#include "daemon/tree.h"

namespace obregd {

/// What a watcher wants to know of.
struct Watched {
    KeyId key;
    bool subTree;  ///< what is below the key's sub-keys, too
    int64_t since; ///< changes with greater numbers only
};

/// What there is to tell.
struct Told {
    int64_t upTo; ///< all changes up to that number have been looked at, and no request's in part
    bool lost;    ///< changes are missing, because the journal no longer has them: what is watched is to be read anew
    std::string text; ///< strings, each with its NUL: number, kind, path from the watched key, value name, by tabs
    bool empty() const { return !lost && text.empty(); }
};

class ChangeReader {
public:
    explicit ChangeReader(SQLite::Database& database);

    /// mostRows: throws TooLong rather than looking at more changes than that.
    Told told(const Watched& watched, int64_t mostRows);

    /// The key above a key, one that is deleted included; nothing when it is not known, 0 above a root.
    std::optional<KeyId> parentOf(KeyId id);
    /// Where a key is, one that is deleted included; nothing when it is not known.
    std::optional<Place> placeOf(KeyId id) { return m_places.of(id); }

    /// The number of the last change.
    int64_t last() { return m_journal.last(); }

private:
    JournalReader m_journal;
    Places m_places;
    SQLite::Statement m_since;
};

} // namespace obregd

#endif
