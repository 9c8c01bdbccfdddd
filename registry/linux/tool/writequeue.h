// Writing many values fast although each is durable: a bounded number of writes in flight at once.
//
// Writes that are in flight together share one commit of the daemon, so the queue keeps many threads writing. What the
// writes leave behind is the same as one after the other: a second write to a value waits for the first. Everything
// that deletes keys calls wait() first. After a failure nothing more is begun.
//
// Owned and called by one thread.
#ifndef OBREG_TOOL_WRITEQUEUE_H
#define OBREG_TOOL_WRITEQUEUE_H

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include <obreg/registry.hpp>

#include "errors.h"

namespace obregtool {

/// A key that is made, or opened, when the first write to it runs.
class Target {
public:
    explicit Target(KeyPath path) : m_path(std::move(path)), m_identity(m_path.identity()) {}

    const KeyPath& path() const { return m_path; }
    const std::string& identity() const { return m_identity; }
    /// The key, made at the first call. Throws Failure. Any thread.
    const obreg::Key& key();

private:
    const KeyPath m_path;
    const std::string m_identity;
    std::mutex m_mutex; // guards m_key
    obreg::Key m_key;
};

/// A write that failed.
struct WriteFailure : Failure {
    WriteFailure(const Failure& failure, uint64_t lineNumber) : Failure(failure), line(lineNumber) {}
    uint64_t line; ///< what was given with the write
};

class WriteQueue {
public:
    WriteQueue() = default;
    /// Waits for what is in flight; what has not begun is dropped.
    ~WriteQueue();
    WriteQueue(const WriteQueue&) = delete;
    WriteQueue& operator=(const WriteQueue&) = delete;

    /// Each waits while too much is queued, and throws the WriteFailure of an earlier write if there is one.
    void createKey(const std::shared_ptr<Target>& pTarget, uint64_t line = 0);
    void set(const std::shared_ptr<Target>& pTarget, std::string&& name, obreg::Value&& value, uint64_t line = 0);
    void removeValue(const std::shared_ptr<Target>& pTarget, std::string&& name, uint64_t line = 0);

    /// Waits until nothing is in flight.
    void settle();
    /// The same; throws as the others.
    void wait();

    uint64_t done() const; ///< writes that were carried out

private:
    struct Write {
        std::shared_ptr<Target> pTarget;
        std::optional<std::string> name;   ///< none: the key only
        std::optional<obreg::Value> value; ///< none: remove
        uint64_t line;
        size_t size() const { return 256 + (name ? name->size() : 0) + (value ? value->data.size() : 0); }
    };

    void add(Write&& write);
    void work();
    static void run(Write& write);
    void throwFailure() const;

    mutable std::mutex m_mutex; // guards all that follows but the threads and m_unsettled
    std::condition_variable m_more;
    std::condition_variable m_less;
    std::deque<Write> m_writes;
    size_t m_size = 0; // bytes, of those that wait and those in flight
    size_t m_unfinished = 0;
    size_t m_idle = 0; // threads that wait for a write
    uint64_t m_done = 0;
    bool m_ending = false;
    std::optional<WriteFailure> m_failure; // that of the first line

    std::unordered_set<size_t> m_unsettled; // hashes of the values written since the last wait()
    std::vector<std::thread> m_threads;
};

} // namespace obregtool

#endif
