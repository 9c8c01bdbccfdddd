#include "failures/write_journal.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

using namespace writejournal;

namespace {

std::optional<File> fileOf(int fd)
{
    std::error_code error;
    const auto end = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error).extension();
    if (end == ".db")
        return File::Store;
    return end == ".db-wal" ? std::optional(File::Log) : std::nullopt;
}

void note(Kind kind, int fd, int64_t offset, const void* bytes, size_t length)
{
    static const char* const pPath = getenv("OBREG_JOURNAL");
    static const int journal = pPath != nullptr ? open(pPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
    const std::optional<File> file = fileOf(fd);
    if (!file || journal == -1)
        return;
    const int savedErrno = errno;
    Record record{kind, *file, offset, length};
    const iovec parts[] = {{&record, sizeof record}, {const_cast<void*>(bytes), length}};
    if (writev(journal, parts, 2) != static_cast<ssize_t>(sizeof record + length))
        abort(); // a journal that lacks something proves nothing
    errno = savedErrno;
}

} // namespace

// NOLINTBEGIN: the C library's names
extern "C" ssize_t pwrite64(int fd, const void* bytes, size_t length, off64_t offset)
{
    const ssize_t count = syscall(SYS_pwrite64, fd, bytes, length, offset);
    if (count > 0)
        note(Kind::Write, fd, offset, bytes, static_cast<size_t>(count));
    return count;
}

extern "C" int ftruncate64(int fd, off64_t length)
{
    const int status = static_cast<int>(syscall(SYS_ftruncate, fd, length));
    if (status == 0)
        note(Kind::Truncate, fd, length, nullptr, 0);
    return status;
}

extern "C" int fdatasync(int fd)
{
    const int status = static_cast<int>(syscall(SYS_fdatasync, fd));
    if (status == 0)
        note(Kind::Sync, fd, 0, nullptr, 0);
    return status;
}

extern "C" int fsync(int fd) { return fdatasync(fd); }
// NOLINTEND
