// What every source of the library and the daemon includes: the public types and the log.
//
// Log lines go to syslog without openlog, so the process's own ident applies (the daemon sends them elsewhere: it has a
// log that never waits). Two kinds exist:
//   IPC_ERROR   priority 14 (LOG_USER | LOG_INFO), always written;
//   IPC_TRACE   priority 15 (LOG_USER | LOG_DEBUG), written only while CDebugLevel is above 0; its arguments are not
//               evaluated otherwise. IPC_DETAIL is the same above 1.
// The format is syslog's own and ends with a newline. syslog may change errno: save it before the first of two lines
// about one failure.
//
// FORK: syslog takes a lock of the C library's. Held by another thread at a fork, it stays held in the child, whose
// first line would wait for ever. So the threads inside are counted (LogTurn), and a child that was born while there
// were any writes no more.
#ifndef OBREG_COMMON_IPCINT_H
#define OBREG_COMMON_IPCINT_H

#include <atomic>
#include <cstdint>
#include <syslog.h>

#include "obreg/obreg.h"

/// The trace level, initially 0. Defined once by each program that links this code; the library exports it, so that an
/// application can set it.
OBREG_API extern int CDebugLevel;

/// CDebugLevel as it is now. It is set without a lock while other threads read it, hence the atomic load.
inline int debugLevel() { return __atomic_load_n(&CDebugLevel, __ATOMIC_RELAXED); }

/// Where the lines go. Set before other threads are started, if at all.
inline void (*ipcLog)(int priority, const char* pFormat, ...) __attribute__((format(printf, 2, 3))) = syslog;

/// Counts the threads in the log. Not inlined, and no guard, which would be code in a hundred places; nothing unwinds
/// from a log call.
class LogTurn {
public:
    /// False when no line may be written; else end() follows.
    [[gnu::noinline, gnu::cold]] static bool begin()
    {
        if (s_lockIsLost.load(std::memory_order_relaxed))
            return false;
        s_inside.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    [[gnu::noinline, gnu::cold]] static void end() { s_inside.fetch_sub(1, std::memory_order_relaxed); }

    /// In a fork child, which has one thread, before its first line.
    static void afterFork() { s_lockIsLost = s_lockIsLost || s_inside != 0; }

private:
    static inline std::atomic<int> s_inside{0};
    static inline std::atomic<bool> s_lockIsLost{false};
};

#define IPC_LOG(priority, ...)                                                                                         \
    (LogTurn::begin() ? (ipcLog(LOG_USER | (priority), __VA_ARGS__), LogTurn::end()) : static_cast<void>(0))
#define IPC_ERROR(...) IPC_LOG(LOG_INFO, __VA_ARGS__)
#define IPC_TRACE(...) (debugLevel() > 0 ? IPC_LOG(LOG_DEBUG, __VA_ARGS__) : static_cast<void>(0))
#define IPC_DETAIL(...) (debugLevel() > 1 ? IPC_LOG(LOG_DEBUG, __VA_ARGS__) : static_cast<void>(0))

/// An object's address as the "Obj = %08X" of the log shows it: the low 32 bits.
inline unsigned logAddress(const void* pObj) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pObj)); }

#endif
