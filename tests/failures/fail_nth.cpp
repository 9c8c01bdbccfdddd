#include "failures/fail_nth.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

// The linker gives the C library's own functions these names.
extern "C" void* __real_malloc(size_t size); // NOLINT

namespace failnth {

namespace {

Plan plan;
std::atomic<bool> armed{false}; // last to be set and first to be cleared: guards what is above
std::atomic<unsigned> calls{0};
std::atomic<long> live{0};
pid_t armedBy = 0;

} // namespace

void arm(const Plan& newPlan)
{
    plan = newPlan;
    calls = 0;
    armedBy = static_cast<pid_t>(syscall(SYS_gettid));
    armed = true;
}

unsigned disarm()
{
    armed = false;
    return calls;
}

int next(Call call)
{
    if (!armed || call != plan.call)
        return 0;
    if ((syscall(SYS_gettid) == armedBy) != (plan.victims == Victims::ThisThread))
        return 0;
    const unsigned count = ++calls;
    return count >= plan.first && count - plan.first < plan.times ? plan.how : 0;
}

long liveBlocks() { return live; }

namespace {

/// True, with errno set, when the call is to fail.
bool fails(Call call)
{
    const int how = next(call);
    if (how > 0)
        errno = how;
    return how != 0;
}

void* allocate(size_t size)
{
    void* const p = next(Call::Allocation) != 0 ? nullptr : __real_malloc(size != 0 ? size : 1);
    live += p != nullptr;
    return p;
}

void* allocateOrThrow(size_t size)
{
    if (void* const p = allocate(size))
        return p;
    throw std::bad_alloc();
}

void release(void* p)
{
    live -= p != nullptr;
    std::free(p);
}

} // namespace

} // namespace failnth

extern "C" void syslog(int, const char*, ...) {} // NOLINT: the real one allocates

// Not inlined: GCC would see malloc where a delete expression ends, and warn.
[[gnu::noinline]] void* operator new(size_t size) { return failnth::allocateOrThrow(size); }
[[gnu::noinline]] void* operator new[](size_t size) { return failnth::allocateOrThrow(size); }
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept { return failnth::allocate(size); }
[[gnu::noinline]] void* operator new[](size_t size, const std::nothrow_t&) noexcept { return failnth::allocate(size); }
[[gnu::noinline]] void operator delete(void* p) noexcept { failnth::release(p); }
[[gnu::noinline]] void operator delete[](void* p) noexcept { failnth::release(p); }
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept { failnth::release(p); }
[[gnu::noinline]] void operator delete[](void* p, size_t) noexcept { failnth::release(p); }

// WRAP(type, name, (parameters), (arguments), call, failure): the replacement of a function that fails as a whole.
#define WRAP(type, name, parameters, arguments, call, failure)                                                         \
    type __real_##name parameters;                                                                                     \
    type __wrap_##name parameters;                                                                                     \
    type __wrap_##name parameters { return failnth::fails(failnth::Call::call) ? (failure) : __real_##name arguments; }

// NOLINTBEGIN: the linker names these functions
extern "C" {
WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol), Socket, -1)
WRAP(int, connect, (int fd, const sockaddr* to, socklen_t length), (fd, to, length), Connect, -1)
WRAP(int, accept, (int fd, sockaddr* from, socklen_t* length), (fd, from, length), Accept, -1)
WRAP(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* length), (fd, level, name, value, length),
     SocketOption, -1)
WRAP(int, pthread_create, (pthread_t * thread, const pthread_attr_t* how, void* (*start)(void*), void* argument),
     (thread, how, start, argument), ThreadCreate, errno)
WRAP(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t* how), (mutex, how), MutexInit, errno)
WRAP(int, pthread_cond_init, (pthread_cond_t * condition, const pthread_condattr_t* how), (condition, how), CondInit,
     errno)
WRAP(void*, malloc, (size_t size), (size), Allocation, nullptr)
WRAP(void*, realloc, (void* p, size_t size), (p, size), Allocation, nullptr)
WRAP(void*, aligned_alloc, (size_t alignment, size_t size), (alignment, size), Allocation, nullptr)

WRAP(int, fcntl, (int fd, int command, long argument), (fd, command, argument), Fcntl, -1)

// Only what takes memory in the kernel can fail there.
int __real_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);
int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);
int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event)
{
    const bool refused = operation == EPOLL_CTL_ADD && failnth::fails(failnth::Call::Poll);
    return refused ? -1 : __real_epoll_ctl(epoll, operation, fd, event);
}

} // extern "C"

// Transfers: they can also move one byte only, or find the end.

namespace {

template <class Message>
ssize_t transfer(failnth::Call call, ssize_t (*real)(int, Message*, int), int fd, Message* message, int flags)
{
    const int how = failnth::next(call);
    if (how == 0)
        return real(fd, message, flags);
    if (how == failnth::Short) {
        const iovec* part = message->msg_iov;
        while (part->iov_len == 0 && part + 1 < message->msg_iov + message->msg_iovlen)
            ++part;
        iovec byte{part->iov_base, std::min<size_t>(part->iov_len, 1)};
        msghdr shortened = *message;
        shortened.msg_iov = &byte;
        shortened.msg_iovlen = 1;
        return real(fd, &shortened, flags);
    }
    errno = how;
    return how == failnth::Ended ? 0 : -1;
}

template <class Message>
ssize_t transfer(failnth::Call call, ssize_t (*real)(int, Message*, int), int fd, void* bytes, size_t length, int flags)
{
    iovec part{bytes, length};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return transfer(call, real, fd, static_cast<Message*>(&message), flags);
}

} // namespace

// WRAP_TRANSFER(name, (parameters), call, real, arguments...)
#define WRAP_TRANSFER(name, parameters, call, real, ...)                                                               \
    ssize_t __wrap_##name parameters;                                                                                  \
    ssize_t __wrap_##name parameters { return transfer(failnth::Call::call, real, __VA_ARGS__, flags); }

extern "C" {
ssize_t __real_sendmsg(int fd, const msghdr* message, int flags);
ssize_t __real_recvmsg(int fd, msghdr* message, int flags);
WRAP_TRANSFER(sendmsg, (int fd, const msghdr* message, int flags), Send, __real_sendmsg, fd, message)
WRAP_TRANSFER(recvmsg, (int fd, msghdr* message, int flags), Receive, __real_recvmsg, fd, message)
WRAP_TRANSFER(send, (int fd, const void* bytes, size_t length, int flags), Send, __real_sendmsg, fd,
              const_cast<void*>(bytes), length)
WRAP_TRANSFER(recv, (int fd, void* bytes, size_t length, int flags), Receive, __real_recvmsg, fd, bytes, length)
} // extern "C"
// NOLINTEND
