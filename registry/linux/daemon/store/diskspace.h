// Room on the store's disk, kept so that a full disk can be cured.
//
// Deleting needs room as well: in the log, and in the file when the log is moved there. So a reserve, a file of zeros
// beside the store, holds room that is for deletions and for tidying alone, and a write that makes the store grow is
// refused while there is still room to tidy up after the last one that was not. What deletions free stays in the
// store's file and in its log, and later writes use it: it is room too, however full the disk is.
//
// Any thread. Made by whoever holds the store's lock, before the store is opened, and there as long as that is.
#ifndef OBREG_DAEMON_STORE_DISKSPACE_H
#define OBREG_DAEMON_STORE_DISKSPACE_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace obregd {

inline constexpr uint64_t StorePageSize = 4096; ///< bytes

class DiskSpace {
public:
    /// Makes the reserve, `<store>-reserve` (0600). When that cannot be done the log says so, and it is tried again
    /// later. On a disk with hardly any room left, gives it up so that the store can be opened.
    explicit DiskSpace(const std::string& storePath);

    /// A batch of writes, and what the store has room for by itself. In bytes.
    struct Demand {
        uint64_t toWrite;    ///< at most, in the log and again in the file
        uint64_t inLog;      ///< in the log since it last began anew
        uint64_t freeInFile; ///< in pages that the file has and does not use
    };

    /// How much the batch may write: what it demands or more, up to a megabyte, as long as that leaves tidying its
    /// room; otherwise nothing. Logs once that room gets short, once that writes are refused and once that all is well
    /// again. Two looks at the file system; makes the reserve anew when it is missing and there is room for it.
    uint64_t grant(const Demand& demand);

    /// Whether what need not be written had better not be.
    bool isShort();

    /// Gives the reserve up when a deletion or tidying has failed for want of room. Then tidy, which makes the log
    /// begin anew, and try again. Returns whether there was a reserve.
    bool release();

    /// The log's length at which it is to be tidied: so long, the reserve has room for what it holds and for a deletion
    /// that makes it longer.
    int logPages() const;

private:
    enum class Level { Enough, Low, Refusing };

    uint64_t capacity(const Demand& demand) const;
    void judge(uint64_t needed, uint64_t capacity);
    void makeReserve();
    bool tryToMakeReserve() const;

    const std::string m_store;
    const std::string m_reserve;
    const uint64_t m_size; // of the reserve
    std::mutex m_mutex;    // guards what follows
    bool m_isThere = false;
    bool m_missed = false; // the log says that it cannot be made
    std::chrono::steady_clock::time_point m_nextTry{};
    Level m_level = Level::Enough;
    uint64_t m_refused = 0; // the most that was refused since there was enough
};

} // namespace obregd

#endif
