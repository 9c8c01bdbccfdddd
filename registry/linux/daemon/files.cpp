#include "daemon/files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace obregd {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what)
{
    throw std::runtime_error(path + ": " + what);
}

[[noreturn]] void failErrno(const std::string& path, const std::string& what)
{
    fail(path, what + ": " + std::strerror(errno));
}

/// The process id that a lock's holder wrote into it, for the message.
std::string holderOf(int fd)
{
    char text[32];
    const ssize_t length = pread(fd, text, sizeof text - 1, 0);
    return length > 1 ? " (process " + std::string(text, static_cast<size_t>(length - 1)) + ")" : std::string();
}

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        fail(path, "a socket's path has 1 to " + std::to_string(sizeof address.sun_path - 1) +
                       " bytes; give a shorter one with --socket");
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

/// Removes what a dead daemon left at path; refuses to touch anything else.
void clearPath(const std::string& path, const sockaddr_un& address)
{
    struct stat found;
    if (lstat(path.c_str(), &found) != 0) {
        if (errno == ENOENT)
            return;
        failErrno(path, "cannot be looked at");
    }
    if (!S_ISSOCK(found.st_mode))
        fail(path, "is there and is not a socket; move it away or give another path with --socket");
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int result = connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (result == 0 || errno == EAGAIN)
        fail(path, "another program is listening there; stop it or give another path with --socket");
    if (unlink(path.c_str()) != 0)
        failErrno(path, "a socket left over from before cannot be removed");
}

} // namespace

std::string folderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

void makeFolder(const std::string& path)
{
    struct stat found;
    if (stat(path.c_str(), &found) == 0) {
        if (!S_ISDIR(found.st_mode))
            fail(path, "is there and is not a folder");
        return;
    }
    makeFolder(folderOf(path));
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
        failErrno(path, "the folder cannot be made");
    if (chmod(path.c_str(), 0755) != 0) // whatever the umask took away
        failErrno(path, "the folder cannot be opened to all");
}

Descriptor::~Descriptor()
{
    if (m_fd >= 0)
        close(m_fd);
}

Lock::Lock(const std::string& path, const char* pOption)
    : m_file(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600))
{
    if (m_file.get() < 0)
        failErrno(path + ".lock", "cannot be opened");
    if (flock(m_file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK)
            failErrno(path + ".lock", "cannot be locked");
        fail(path, "another obregd" + holderOf(m_file.get()) +
                       " is using it; stop that one or give another path with " + pOption);
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    // The number serves only messages: a lock without it is as good.
    if (ftruncate(m_file.get(), 0) == 0 && pwrite(m_file.get(), pid.data(), pid.size(), 0) < 0)
        return;
}

ListeningSocket::ListeningSocket(const std::string& path)
    : m_path(path), m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    if (m_socket.get() < 0)
        failErrno(path, "no socket to be had");
    const sockaddr_un address = addressOf(path);
    clearPath(path, address);
    if (bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        failErrno(path, "cannot be bound");
    if (chmod(path.c_str(), 0666) != 0 || listen(m_socket.get(), SOMAXCONN) != 0) {
        const int error = errno;
        unlink(path.c_str());
        errno = error;
        failErrno(path, "cannot be listened on");
    }
}

ListeningSocket::~ListeningSocket() { unlink(m_path.c_str()); }

} // namespace obregd
