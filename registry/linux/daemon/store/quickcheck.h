// A look through the whole store while the daemon begins to serve, so that damage is told before somebody meets it.
//
// On a thread of its own, which gives way to all others, with a connection of its own. It finds pages that are damaged
// or missing, in a second or two for 200 MB from a disk; what --check finds beyond that takes longer. It reads one
// state of the store, and the log cannot begin anew meanwhile: so it ends, through or not, after Patience, and when the
// log's room is needed.
#ifndef OBREG_DAEMON_STORE_QUICKCHECK_H
#define OBREG_DAEMON_STORE_QUICKCHECK_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

struct sqlite3;

namespace obregd {

class QuickCheck {
public:
    /// Begins. The log says what is found, and why there is no check if there is none.
    explicit QuickCheck(std::string storePath);
    /// Ends it, whether it is through or not.
    ~QuickCheck();
    QuickCheck(const QuickCheck&) = delete;
    QuickCheck& operator=(const QuickCheck&) = delete;

    /// Ends it if it has taken too long. To be called now and then, by any thread.
    void limit();
    /// Ends it; it reads nothing any more when this returns. Any thread.
    void stop();

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds Patience{20};

    void run();
    std::string firstProblem();
    void setRunning(sqlite3* pDatabase);
    bool is(const bool& flag);

    const std::string m_path;
    const Clock::time_point m_end = Clock::now() + Patience;
    std::mutex m_mutex; // guards what follows but the thread
    std::condition_variable m_ended;
    sqlite3* m_pRunning = nullptr; // while it may be interrupted
    bool m_stop = false;
    bool m_silent = false;
    std::thread m_thread;
};

} // namespace obregd

#endif
