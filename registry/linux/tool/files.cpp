#include "files.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "alarm.h"
#include "errors.h"

namespace obregtool {

namespace {

constexpr size_t ReadSize = size_t{64} * 1024;

int keepOpen(FILE* /*pFile*/) { return 0; }

File openToRead(const std::string& name)
{
    if (name == "-")
        return {stdin, keepOpen};
    File pFile(fopen(name.c_str(), "rbe"), fclose);
    if (!pFile)
        throw fileFailure(name, errno);
    return pFile;
}

template <class Take>
void readPieces(FILE* pFile, const std::string& name, const Take& take)
{
    std::string piece(ReadSize, '\0');
    errno = 0;
    while (const size_t count = fread(piece.data(), 1, piece.size(), pFile))
        take(std::string_view(piece.data(), count));
    if (ferror(pFile) != 0)
        throw fileFailure(name, errno);
}

/// Makes the names in a file's folder durable. Where a folder cannot be flushed, its file system does without.
void flushFolder(const std::string& file)
{
    const size_t slash = file.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    fsync(fd);
    close(fd);
}

std::string shownFile(const std::string& name) { return name == "-" ? "standard input" : name; }

} // namespace

std::string readWhole(const std::string& name)
{
    const File pFile = openToRead(name);
    std::string bytes;
    readPieces(pFile.get(), shownFile(name), [&bytes](std::string_view piece) { bytes += piece; });
    return bytes;
}

RereadableFile::RereadableFile(const std::string& name) : m_name(shownFile(name)), m_pFile(openToRead(name))
{
    struct stat status {};
    if (fstat(fileno(m_pFile.get()), &status) != 0)
        throw fileFailure(m_name, errno);
    m_begin = S_ISREG(status.st_mode) ? ftello(m_pFile.get()) : -1;
    if (m_begin < 0)
        spool(m_pFile.get());
}

void RereadableFile::spool(FILE* pFrom)
{
    File pCopy(tmpfile(), fclose);
    if (!pCopy)
        throw fileFailure("a temporary file for " + m_name, errno);
    readPieces(pFrom, m_name, [&](std::string_view piece) {
        if (fwrite(piece.data(), 1, piece.size(), pCopy.get()) != piece.size())
            throw fileFailure("a temporary file for " + m_name, errno);
    });
    m_pFile = std::move(pCopy);
    m_begin = 0;
}

void RereadableFile::read(const std::function<void(std::string_view)>& take)
{
    if (fseeko(m_pFile.get(), m_begin, SEEK_SET) != 0)
        throw fileFailure(m_name, errno);
    readPieces(m_pFile.get(), m_name, take);
}

NewFile::NewFile(const std::string& name) : m_name(name), m_target(name), m_pFile(stdout, keepOpen)
{
    if (name == "-")
        return;
    struct stat old {};
    const bool exists = stat(name.c_str(), &old) == 0;
    if (const std::unique_ptr<char, decltype(&free)> pResolved(realpath(name.c_str(), nullptr), free); pResolved)
        m_target = pResolved.get();
    const bool replace = !exists || S_ISREG(old.st_mode);
    const std::string path = replace ? m_target + ".new." + std::to_string(getpid()) : name;
    removeWhenKilled(replace ? path : ""); // before it is there
    m_pFile = File(fopen(path.c_str(), replace ? "wbxe" : "wbe"), fclose);
    if (!m_pFile)
        fail();
    if (!replace)
        return;
    m_temporary = path;
    const int fd = fileno(m_pFile.get());
    // Who may not give the owner away keeps it; the mode goes last, for a change of owner can change it.
    if (exists &&
        ((fchown(fd, old.st_uid, old.st_gid) != 0 && errno != EPERM) || fchmod(fd, old.st_mode & 07777) != 0)) {
        const int error = errno;
        unlink(m_temporary.c_str());
        throw fileFailure(m_name, error);
    }
}

NewFile::~NewFile()
{
    if (!m_temporary.empty())
        unlink(m_temporary.c_str());
    removeWhenKilled("");
}

void NewFile::fail() const { throw fileFailure(m_name == "-" ? "standard output" : m_name, errno != 0 ? errno : EIO); }

void NewFile::write(std::string_view bytes)
{
    errno = 0;
    if (fwrite(bytes.data(), 1, bytes.size(), m_pFile.get()) != bytes.size())
        fail();
}

void NewFile::commit()
{
    if (fflush(m_pFile.get()) != 0)
        fail();
    if (m_temporary.empty())
        return;
    if (fsync(fileno(m_pFile.get())) != 0 || rename(m_temporary.c_str(), m_target.c_str()) != 0)
        fail();
    flushFolder(m_target);
    m_temporary.clear();
}

} // namespace obregtool
