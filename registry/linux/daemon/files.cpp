#include "daemon/files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <pwd.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include "daemon/log.h"

namespace obregd {

namespace {

constexpr char FromSystemd[] = "; systemd must make the socket again: systemctl restart obregd.socket";

[[noreturn]] void fail(const std::string& path, const std::string& what)
{
    throw std::runtime_error(path + ": " + what);
}

[[noreturn]] void failErrno(const std::string& path, const std::string& what)
{
    const std::string advice = rightsAdvice(path);
    fail(path, what + ": " + std::strerror(errno) + advice);
}

std::string userName(uid_t uid)
{
    const passwd* const pUser = getpwuid(uid);
    return pUser != nullptr ? pUser->pw_name : std::to_string(uid);
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

/// Nothing, and errno, when there is nothing to be seen. flags: statx's. Does not ask for the times: a file whose times
/// have been looked at gets finer ones with its next write, which makes each commit a fifth slower.
std::optional<FileId> fileAt(const std::string& path, int flags)
{
    struct statx found;
    if (statx(AT_FDCWD, path.c_str(), flags, STATX_INO, &found) != 0)
        return std::nullopt;
    return FileId{makedev(found.stx_dev_major, found.stx_dev_minor), found.stx_ino};
}

/// The path that a socket is bound to.
std::string pathOf(const Descriptor& socket)
{
    sockaddr_un address{};
    socklen_t length = sizeof address;
    if (getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return {};
    return {address.sun_path, strnlen(address.sun_path, sizeof address.sun_path)};
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
    if (errno != ECONNREFUSED)
        failErrno(path, "whether another program is listening there cannot be found out");
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

std::string realPath(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> pReal(realpath(path.c_str(), nullptr), &std::free);
    return pReal ? pReal.get() : path;
}

std::string rightsAdvice(const std::string& path)
{
    const int error = errno;
    if (error != EACCES && error != EPERM)
        return {};
    std::string place = path;
    struct stat found;
    while (lstat(place.c_str(), &found) != 0 && place != "/" && place != ".")
        place = folderOf(place);
    const std::string user = userName(geteuid());
    std::string text = "; obregd runs as user " + user + ", and " + place + " belongs to " +
                       (found.st_uid == geteuid() ? "it" : userName(found.st_uid));
    if (!S_ISREG(found.st_mode)) {
        text += "; run obregd as that user, or give it paths in a folder of its own with --socket and --store";
    } else if (found.st_uid == geteuid()) {
        text += "; chmod u+rw " + place + " gives it access";
    } else {
        text += "; if it is the daemon's own, as after a run by hand as root, chown -h " + user + " " + place +
                " as root gives it back; so with the files beside it";
    }
    errno = error;
    return text;
}

std::string freeName(const std::string& wanted)
{
    std::string name = wanted;
    for (int i = 2; access(name.c_str(), F_OK) == 0; ++i)
        name = wanted + "." + std::to_string(i);
    return name;
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
    : m_wasThere(access((path + ".lock").c_str(), F_OK) == 0),
      m_file(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600))
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

StoreLock::StoreLock(const std::string& path)
    : m_path(path, "--store"), m_file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600))
{
    struct stat found;
    if (m_file.get() < 0 || fstat(m_file.get(), &found) != 0)
        failErrno(path, "cannot be used as a store");
    if (!S_ISREG(found.st_mode))
        fail(path, "is there and is not a file; give another path with --store");
    if (flock(m_file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK)
            failErrno(path, "cannot be locked");
        fail(path, "is another name of a store that another obregd is using (`fuser " + path +
                       "` tells which); stop that one or give another path with --store");
    }
    if (found.st_size == 0)
        startAnew(path);
}

void StoreLock::startAnew(const std::string& path)
{
    const std::string log = realPath(path) + "-wal";
    struct stat found;
    std::string keptLog;
    if (stat(log.c_str(), &found) == 0 && found.st_size != 0) {
        keptLog = freeName(log + ".old");
        if (rename(log.c_str(), keptLog.c_str()) != 0)
            failErrno(log, "belongs to a store that is missing or empty, and cannot be given another name");
    }
    if (m_path.wasThere() || !keptLog.empty())
        logLine(
            LOG_WARNING,
            "%s: is missing or empty, though a daemon has stored there; if that store is wanted, stop the daemon and "
            "put it back or restore a backup%s%s",
            path.c_str(), keptLog.empty() ? "" : "; its log is kept as ", keptLog.c_str());
}

StoreIdentity::StoreIdentity(const std::string& storePath)
{
    // SQLite puts the log beside the file itself, wherever links lead.
    const std::string real = realPath(storePath);
    m_parts = {{{storePath, fileAt(storePath, 0)}, {real + "-wal", {}}, {real + "-shm", {}}}};
    if (!m_parts[0].file)
        failErrno(storePath, "cannot be looked at");
    isKept();
}

const char* StoreIdentity::lookForLoss(const Part*& pWhere)
{
    for (Part& part : m_parts) {
        const std::optional<FileId> found = fileAt(part.path, 0);
        if (!part.file && (found || errno == ENOENT)) // not made yet, or just made
            part.file = found;
        if (part.file == found)
            continue;
        pWhere = &part;
        if (found)
            return "another file has been put in its place";
        return errno == ENOENT ? "has been removed or moved away" : std::strerror(errno);
    }
    return nullptr;
}

bool StoreIdentity::isKept()
{
    const std::lock_guard lock(m_mutex);
    const Part* pWhere = nullptr;
    const char* const pLoss = lookForLoss(pWhere);
    const bool wasKept = std::exchange(m_kept, pLoss == nullptr);
    if (wasKept && !m_kept)
        logLine(LOG_ERR,
                "%s: %s while the daemon was using it; writes are refused; stop the daemon, put the file back or "
                "restore a backup, and start it again",
                pWhere->path.c_str(), pLoss);
    else if (!wasKept && m_kept)
        logLine(LOG_NOTICE, "%s: all its files are back; writes are taken again", m_parts[0].path.c_str());
    return m_kept;
}

ListeningSocket::ListeningSocket(std::string path) : m_path(std::move(path)), m_own(true) { listenHere(); }

ListeningSocket::ListeningSocket(Descriptor handedOver)
    : m_path(pathOf(handedOver)), m_own(false), m_socket(std::move(handedOver)),
      m_file(fileAt(m_path, AT_SYMLINK_NOFOLLOW))
{}

ListeningSocket::~ListeningSocket()
{
    if (m_own && look() == Place::Ours)
        unlink(m_path.c_str());
}

void ListeningSocket::listenHere()
{
    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.get() < 0)
        failErrno(m_path, "no socket to be had");
    const sockaddr_un address = addressOf(m_path);
    clearPath(m_path, address);
    if (bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        failErrno(m_path, "cannot be bound");
    if (chmod(m_path.c_str(), 0666) != 0 || listen(made.get(), SOMAXCONN) != 0) {
        const int error = errno;
        unlink(m_path.c_str());
        errno = error;
        failErrno(m_path, "cannot be listened on");
    }
    m_socket = std::move(made);
    m_file = fileAt(m_path, AT_SYMLINK_NOFOLLOW);
}

ListeningSocket::Place ListeningSocket::look() const
{
    if (m_path.empty())
        return Place::Ours;
    const std::optional<FileId> found = fileAt(m_path, AT_SYMLINK_NOFOLLOW);
    if (!found)
        return errno == ENOENT ? Place::Gone : m_told; // perhaps there: not to be told yet
    return found == m_file ? Place::Ours : Place::Taken;
}

bool ListeningSocket::restore()
{
    const Place place = look();
    const bool isNews = std::exchange(m_told, place) != place;
    if (place == Place::Taken && isNews)
        logLine(LOG_ERR,
                "%s: something else has been put in the socket's place; new clients do not reach this daemon; remove "
                "that%s",
                m_path.c_str(), m_own ? ", and the daemon listens there again" : FromSystemd);
    if (place != Place::Gone)
        return false;
    if (!m_own) {
        if (isNews)
            logLine(LOG_ERR, "%s: the socket has been removed; new clients do not reach this daemon%s", m_path.c_str(),
                    FromSystemd);
        return false;
    }
    try {
        listenHere();
        m_told = Place::Ours;
        logLine(LOG_WARNING, "%s: the socket has been removed; listening on a new one", m_path.c_str());
        return true;
    } catch (const std::exception& failure) {
        if (isNews)
            logLine(LOG_ERR, "the socket has been removed, and a new one cannot be made: %s; trying again",
                    failure.what());
        return false;
    }
}

} // namespace obregd
