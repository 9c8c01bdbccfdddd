#include "daemon/store/diskspace.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "daemon/files.h"
#include "daemon/log.h"
#include "daemon/options.h"

namespace obregd {

namespace {

constexpr uint64_t KiB = 1024;
constexpr uint64_t MostLogPages = 4000;
constexpr uint64_t LogOverhead = 128; // so many times less than the pages themselves is what the log writes about them
constexpr uint64_t Margin = 64 * KiB; // for what the file system writes about files
constexpr uint64_t StartRoom = 256 * KiB; // to open a store: its index of the log, and a page here and there
constexpr auto Pause = std::chrono::seconds(1);

std::optional<uint64_t> freeOnDisk(const std::string& path)
{
    struct statvfs disk;
    if (statvfs(path.c_str(), &disk) != 0)
        return std::nullopt;
    return uint64_t{disk.f_bavail} * disk.f_frsize;
}

uint64_t reserveSize(const std::string& path)
{
    struct statvfs disk;
    const uint64_t total = statvfs(path.c_str(), &disk) == 0 ? uint64_t{disk.f_blocks} * disk.f_frsize : 0;
    return std::clamp(total / 32, MiB, 16 * MiB);
}

uint64_t sizeOf(const std::string& path)
{
    struct statx found; // without the times, see files.cpp
    return statx(AT_FDCWD, path.c_str(), 0, STATX_SIZE, &found) == 0 ? found.stx_size : 0;
}

uint64_t less(uint64_t from, uint64_t what) { return from > what ? from - what : 0; }

/// The most that can be written, when the first `once` bytes find room in both places, the next ones up to `twice` in
/// one of them, and all others in neither.
uint64_t mostWritable(uint64_t disk, uint64_t once, uint64_t twice)
{
    if (disk <= twice - once)
        return once + disk;
    return twice + (disk - (twice - once)) / 2;
}

} // namespace

DiskSpace::DiskSpace(const std::string& storePath)
    : m_store(realPath(storePath)), m_reserve(m_store + "-reserve"), m_size(reserveSize(folderOf(m_store)))
{
    makeReserve();
    if (freeOnDisk(folderOf(m_store)).value_or(StartRoom) < StartRoom)
        release();
}

int DiskSpace::logPages() const { return static_cast<int>(std::min(m_size / StorePageSize * 3 / 4, MostLogPages)); }

uint64_t DiskSpace::grant(const Demand& demand)
{
    const std::lock_guard lock(m_mutex);
    if (!m_isThere && std::chrono::steady_clock::now() >= m_nextTry)
        makeReserve();
    const uint64_t most = capacity(demand);
    const uint64_t needed = demand.toWrite + demand.toWrite / LogOverhead;
    if (needed > most && demand.inLog > 0)
        return 0; // tidying may give room: not yet worth a line
    judge(needed, most);
    return needed > most ? 0 : std::max(demand.toWrite, std::min(most - most / LogOverhead, MiB));
}

/// What of the disk is not needed to tidy up what the log holds.
uint64_t DiskSpace::capacity(const Demand& demand) const
{
    const std::optional<uint64_t> disk = freeOnDisk(m_store);
    if (!disk)
        return UINT64_MAX; // the write itself will find out
    const uint64_t kept = Margin + (m_isThere ? 0 : m_size) + less(demand.inLog, demand.freeInFile);
    const uint64_t inLog = less(sizeOf(m_store + "-wal"), demand.inLog);
    const uint64_t inFile = less(demand.freeInFile, demand.inLog);
    return mostWritable(less(*disk, kept), std::min(inLog, inFile), std::max(inLog, inFile));
}

void DiskSpace::judge(uint64_t needed, uint64_t capacity)
{
    const uint64_t low = 2 * m_size; // twice what tidying gives and takes
    const auto enter = [&](Level level, int priority, const char* pWhat) {
        m_level = level;
        logLine(priority, "%s: room for %" PRIu64 " KiB more; %s", m_store.c_str(), capacity / KiB, pWhat);
    };
    if (needed > capacity) {
        m_refused = std::max(m_refused, needed);
        if (m_level != Level::Refusing)
            enter(Level::Refusing, LOG_ERR,
                  "writes that need more are refused, deletions are not; make room on the store's disk, or delete keys "
                  "and values");
    } else if (m_level == Level::Enough && capacity - needed < low) {
        enter(Level::Low, LOG_WARNING,
              "beyond that writes will be refused; make room on the store's disk, or delete keys and values");
    } else if (m_level != Level::Enough && capacity >= std::max(2 * low, m_refused)) {
        m_refused = 0;
        enter(Level::Enough, LOG_NOTICE, "that is enough again");
    }
}

bool DiskSpace::isShort()
{
    const std::lock_guard lock(m_mutex);
    return !m_isThere || m_level != Level::Enough;
}

bool DiskSpace::release()
{
    const std::lock_guard lock(m_mutex);
    if (!m_isThere || unlink(m_reserve.c_str()) != 0)
        return false;
    m_isThere = false;
    m_nextTry = std::chrono::steady_clock::now() + Pause;
    logLine(LOG_WARNING,
            "%s: the disk is full; the reserve is given up for deletions and tidying; make room on that disk",
            m_reserve.c_str());
    return true;
}

void DiskSpace::makeReserve()
{
    m_isThere = tryToMakeReserve();
    if (!m_isThere && !m_missed)
        logLine(LOG_WARNING,
                "%s: %" PRIu64 " KiB cannot be set aside for deletions on a full disk: %s; trying again; %s",
                m_reserve.c_str(), m_size / KiB, std::strerror(errno),
                errno == EACCES ? "delete it, or give it to the daemon's user" : "make room on that disk");
    m_missed = !m_isThere;
    m_nextTry = std::chrono::steady_clock::now() + Pause;
}

bool DiskSpace::tryToMakeReserve() const
{
    const Descriptor file(open(m_reserve.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    struct stat found;
    if (file.get() < 0 || fstat(file.get(), &found) != 0)
        return false;
    const uint64_t had = static_cast<uint64_t>(found.st_blocks) * 512;
    int error = had < m_size && freeOnDisk(m_reserve).value_or(0) + had < m_size + Margin ? ENOSPC : 0;
    while (error == 0 && (error = posix_fallocate(file.get(), 0, static_cast<off_t>(m_size))) == EINTR)
        error = 0;
    if (error == 0)
        return ftruncate(file.get(), static_cast<off_t>(m_size)) == 0; // it may have been longer
    if (S_ISREG(found.st_mode))
        unlink(m_reserve.c_str());
    errno = error;
    return false;
}

} // namespace obregd
