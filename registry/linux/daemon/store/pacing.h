// Flushes what a connection writes to its file a megabyte at a time, while it writes.
//
// Whoever writes much and flushes at the end gives the disk all of it at once, and each commit of anybody else waits
// behind that: on a file system whose journal keeps data in order, for as long as the whole takes. In pieces, a commit
// waits for one of them at most.
//
// Belongs to the connection's thread, and ends before the connection is closed.
#ifndef OBREG_DAEMON_STORE_PACING_H
#define OBREG_DAEMON_STORE_PACING_H

#include <sqlite3.h>

namespace obregd {

class Pacing {
public:
    /// Of the connection's main file. Its log's writes and its other calls are left as they are.
    explicit Pacing(sqlite3* pConnection);
    ~Pacing();
    Pacing(const Pacing&) = delete;
    Pacing& operator=(const Pacing&) = delete;

private:
    struct Methods : sqlite3_io_methods {
        const sqlite3_io_methods* pOriginal = nullptr;
        int unflushed = 0; // bytes
    };

    static int write(sqlite3_file* pFile, const void* pData, int length, sqlite3_int64 offset);

    sqlite3_file* m_pFile = nullptr;
    Methods m_methods{};
};

} // namespace obregd

#endif
