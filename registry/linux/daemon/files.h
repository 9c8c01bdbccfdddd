// The daemon's places in the file system: folders, locks and the listening socket, and whether they are still what they
// were. A path is only a name: what it leads to can be removed, moved or replaced while the daemon runs.
//
// What cannot be made throws std::runtime_error with a message for the operator: the path, what is wrong, what to do.
// One thread at a time, unless said otherwise.
#ifndef OBREG_DAEMON_FILES_H
#define OBREG_DAEMON_FILES_H

#include <array>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>

namespace obregd {

/// The folder that holds path; "." for a bare name.
std::string folderOf(const std::string& path);

/// Where path leads when links are followed; path itself when nothing is there.
std::string realPath(const std::string& path);

/// The name, or one like it that nothing has.
std::string freeName(const std::string& wanted);

/// Makes the folder, its missing parents included, open to all for reading (0755). One that exists is left as it is.
void makeFolder(const std::string& path);

/// After a failure, with errno still its: when rights were missing, as which user the daemon runs, whose the file is,
/// or the folder that it would be in, and what helps; begins with a semicolon. Empty after any other failure.
std::string rightsAdvice(const std::string& path);

/// A file descriptor, closed by whoever holds it last.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }

    int get() const { return m_fd; }
    int release()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

/// A file itself, whatever it is called.
struct FileId {
    dev_t device;
    ino_t inode;
    bool operator==(const FileId&) const = default;
};

/// Holds `path + ".lock"` locked as long as it lives. The kernel lets go of the lock when the process dies, however it
/// dies, so a lock that is held means a daemon that lives. The file itself stays.
class Lock {
public:
    /// Throws when another process holds the lock; option is the one that gives this path, for the message.
    Lock(const std::string& path, const char* pOption);

    /// Whether the file was there before: somebody has used the path.
    bool wasThere() const { return m_wasThere; }

private:
    bool m_wasThere;
    Descriptor m_file;
};

/// Holds a store against every other daemon: its path, by a Lock, and the file itself, which may have other names.
/// Makes an empty file (0600) when there is none. Where there was a store once, the log says that it is missing or
/// empty, and the log that belongs to it is kept under another name: SQLite would remove it.
///
/// Made before SQLite opens the file and destroyed after the last connection is closed: when a process closes any
/// descriptor of a file, its locks on that file go, SQLite's included.
class StoreLock {
public:
    explicit StoreLock(const std::string& path);

private:
    void startAnew(const std::string& path);

    Lock m_path;
    Descriptor m_file;
};

/// Whether a store's path, with the two files of its log, still leads to the files in which the daemon stores. If not,
/// what is written to them is lost to everybody else.
///
/// Any thread.
class StoreIdentity {
public:
    /// Remembers what is there. The log's files may come later: they are remembered when they are first seen.
    explicit StoreIdentity(const std::string& storePath);

    /// Costs three looks at the file system and no memory. The log says once what happened to which path, and once when
    /// all is well again.
    bool isKept();

private:
    struct Part {
        std::string path;
        std::optional<FileId> file;
    };

    /// What happened to the first one that is not what it was; null when all are.
    const char* lookForLoss(const Part*& pWhere);

    std::mutex m_mutex; // guards what follows
    std::array<Part, 3> m_parts;
    bool m_kept = true;
};

/// A listening socket that anybody may connect to, and its file. The caller holds the path's Lock meanwhile.
class ListeningSocket {
public:
    /// Makes it (0666); removes a dead daemon's first, and its own in the end.
    explicit ListeningSocket(std::string path);
    /// One that systemd has made; its file stays systemd's, and is neither made nor removed here.
    explicit ListeningSocket(Descriptor handedOver);
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    /// Empty for a name outside the file system.
    const std::string& path() const { return m_path; }

    /// Gives the descriptor away; the file is still removed at the end.
    int releaseDescriptor() { return m_socket.release(); }

    /// To be called now and then: looks whether the path still leads to this socket. When nothing is there, listens on
    /// a new one, whose descriptor is then to be released again, and returns true. Never touches what somebody else has
    /// put there. The log says once what happened. Does not throw.
    bool restore();

private:
    enum class Place { Ours, Gone, Taken };

    void listenHere();
    Place look() const;

    const std::string m_path;
    const bool m_own;
    Descriptor m_socket;
    std::optional<FileId> m_file;
    Place m_told = Place::Ours; // what the log has been told last
};

} // namespace obregd

#endif
