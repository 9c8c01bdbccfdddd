// The daemon's places in the file system: folders, locks and the listening socket.
//
// Everything here throws std::runtime_error with a message for the operator: the path, what is wrong, what to do.
#ifndef OBREG_DAEMON_FILES_H
#define OBREG_DAEMON_FILES_H

#include <string>

namespace obregd {

/// The folder that holds path; "." for a bare name.
std::string folderOf(const std::string& path);

/// Makes the folder, its missing parents included, open to all for reading (0755). One that exists is left as it is.
void makeFolder(const std::string& path);

/// A file descriptor, closed by whoever holds it last.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&&) = delete;

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

/// Holds `path + ".lock"` locked as long as it lives. The kernel lets go of the lock when the process dies, however it
/// dies, so a lock that is held means a daemon that lives. The file itself stays.
class Lock {
public:
    /// Throws when another process holds the lock; option is the one that gives this path, for the message.
    Lock(const std::string& path, const char* pOption);

private:
    Descriptor m_file;
};

/// A listening socket that anybody may connect to (0666). Removes a dead daemon's socket first and its own in the end;
/// the caller holds the path's Lock meanwhile.
class ListeningSocket {
public:
    explicit ListeningSocket(const std::string& path);
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    /// Gives the descriptor away; the file is still removed at the end.
    int releaseDescriptor() { return m_socket.release(); }

private:
    std::string m_path;
    Descriptor m_socket;
};

} // namespace obregd

#endif
