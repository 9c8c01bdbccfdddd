#include "daemon/systemd.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "daemon/log.h"

namespace obregd::systemd {

namespace {

constexpr int FirstHandedOver = 3; // descriptors follow each other from here

/// An environment variable's text, empty when there is none. It is for this process and not for its children.
std::string takeVariable(const char* pName)
{
    const char* const pText = std::getenv(pName);
    std::string text = pText == nullptr ? "" : pText;
    unsetenv(pName);
    return text;
}

int socketOption(const Descriptor& socket, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(socket.get(), SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

bool isListeningStream(const Descriptor& socket)
{
    return socketOption(socket, SO_DOMAIN) == AF_UNIX && socketOption(socket, SO_TYPE) == SOCK_STREAM &&
           socketOption(socket, SO_ACCEPTCONN) == 1;
}

/// The address of a path, or of a name without a file when it begins with '@'. False when there is none to be had.
bool makeAddress(std::string_view path, sockaddr_un& address, socklen_t& length)
{
    if (path.empty() || (path[0] != '/' && path[0] != '@') || path.size() >= sizeof address.sun_path)
        return false;
    address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@')
        address.sun_path[0] = '\0';
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    return true;
}

} // namespace

Descriptor takeSocket()
{
    const std::string pid = takeVariable("LISTEN_PID");
    const std::string count = takeVariable("LISTEN_FDS");
    takeVariable("LISTEN_FDNAMES");
    if (count.empty() || pid != std::to_string(getpid())) // the variables of another process, inherited
        return Descriptor();
    if (count != "1")
        throw std::runtime_error("systemd handed over " + count +
                                 " sockets and obregd listens on one; leave one ListenStream= in obregd.socket");
    Descriptor socket(FirstHandedOver);
    if (!isListeningStream(socket))
        throw std::runtime_error("systemd handed over something else than a listening Unix-domain stream socket; "
                                 "give the socket's path as ListenStream= in obregd.socket, with Accept=no");
    if (fcntl(socket.get(), F_SETFD, FD_CLOEXEC) != 0 || fcntl(socket.get(), F_SETFL, O_NONBLOCK) != 0)
        throw std::runtime_error(std::string("the socket from systemd cannot be set up: ") + std::strerror(errno));
    return socket;
}

void notify(const char* pState)
{
    const char* const pPath = std::getenv("NOTIFY_SOCKET");
    if (pPath == nullptr)
        return;
    sockaddr_un address;
    socklen_t length = 0;
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!makeAddress(pPath, address, length) || socket.get() < 0 ||
        sendto(socket.get(), pState, std::strlen(pState), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address), length) <
            0)
        logLine(LOG_WARNING, "systemd cannot be told %s: %s", pState, std::strerror(errno));
}

std::optional<std::chrono::microseconds> takeWatchdog()
{
    const std::string pid = takeVariable("WATCHDOG_PID");
    const std::string time = takeVariable("WATCHDOG_USEC");
    if (!pid.empty() && pid != std::to_string(getpid()))
        return std::nullopt;
    const std::chrono::microseconds interval(std::strtoll(time.c_str(), nullptr, 10));
    if (interval.count() <= 0)
        return std::nullopt;
    return interval;
}

bool standardErrorIsJournal()
{
    const char* const pJournal = std::getenv("JOURNAL_STREAM"); // device and inode of what systemd connected
    struct stat found;
    return pJournal != nullptr && fstat(STDERR_FILENO, &found) == 0 &&
           pJournal == std::to_string(found.st_dev) + ":" + std::to_string(found.st_ino);
}

} // namespace obregd::systemd
