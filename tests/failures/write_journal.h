// A journal of what a process writes to its store, for a test that wants to know what a power failure would have left.
//
// write_journal.so, loaded with LD_PRELOAD, lets every write, truncation and synchronisation of the store and its log
// pass and appends a record to the file that the environment's OBREG_JOURNAL names. A synchronisation is noted once it
// is done.
#ifndef OBREG_TESTS_WRITE_JOURNAL_H
#define OBREG_TESTS_WRITE_JOURNAL_H

#include <cstdint>

namespace writejournal {

enum class Kind : uint32_t { Write, Truncate, Sync };
enum class File : uint32_t { Store, Log }; // the log's name ends in -wal

/// Followed by `length` bytes.
struct Record {
    Kind kind;
    File file;
    int64_t offset;
    uint64_t length;
};

} // namespace writejournal

#endif
