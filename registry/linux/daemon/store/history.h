// What has happened to a key, or anywhere below it: the journal, asked for what there was before each change and who
// made it.
//
// Belongs to a Store and its thread. An answer looks at a bounded part of the journal, which can still take some tens
// of milliseconds, and says from where the next one goes on.
#ifndef OBREG_DAEMON_STORE_HISTORY_H
#define OBREG_DAEMON_STORE_HISTORY_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "daemon/store/journal.h"
#include "daemon/store/places.h"

namespace obregd {

struct HistoryQuestion {
    static constexpr int64_t Now = std::numeric_limits<int64_t>::max();

    KeyId key;    ///< may be a deleted one
    int64_t from; ///< changes before that number, newest first, or after it, oldest first
    bool newestFirst;
    int64_t most;     ///< changes in the answer
    bool subTree;     ///< what is below the sub-keys, too
    std::string path; ///< from that key: only of the key there; it need not be there any more
};

class HistoryReader {
public:
    explicit HistoryReader(SQLite::Database& database) : m_journal(database), m_places(database) {}

    /// Strings, each with its NUL: the number from which the next question goes on, the number of the oldest change
    /// that is kept and that of the last one; then the changes.
    std::string answer(const HistoryQuestion& question);

private:
    JournalReader m_journal;
    Places m_places;
};

} // namespace obregd

#endif
