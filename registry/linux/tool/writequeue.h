// Writing many values fast although each is durable: what waits is written in transactions, some of them at once.
//
// A transaction that is refused has done nothing: it is cut where the refused write is, and that one is written by
// itself. Where the daemon has no transactions each write is one request, and many are in flight at once. What the
// writes leave behind is the same as one after the other: a second write to a value waits for the first. Everything
// that deletes keys calls wait() first.
//
// The first write that is refused stops the queue: what was given before it is still carried out, nothing later is
// begun, and the failure tells which of the later ones had been under way. So all that stands is known. A queue that
// goes on gives the refusals away in the order of the writes; without a daemon it stops as well.
//
// Owned and called by one thread.
#ifndef OBREG_TOOL_WRITEQUEUE_H
#define OBREG_TOOL_WRITEQUEUE_H

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include <obreg/registry.hpp>

#include "batch.h"

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

/// A write that failed, and what else was done and was not.
struct WriteFailure : Failure {
    WriteFailure(const Failure& failure, uint64_t lineNumber) : Failure(failure), line(lineNumber) {}
    uint64_t line; ///< what was given with the write
    // lines, in no certain order
    std::vector<uint64_t> after;   ///< given after it and carried out all the same
    std::vector<uint64_t> unknown; ///< begun, and no answer came
};

class WriteQueue {
public:
    enum AtRefusal { Stop, GoOn };

    explicit WriteQueue(AtRefusal atRefusal = Stop) : m_goesOn(atRefusal == GoOn) {}
    /// Waits for what is in flight; what has not begun is dropped.
    ~WriteQueue();
    WriteQueue(const WriteQueue&) = delete;
    WriteQueue& operator=(const WriteQueue&) = delete;

    /// Each waits while too much is queued. When the queue has stopped it waits for what is in flight and throws the
    /// WriteFailure.
    void createKey(const std::shared_ptr<Target>& pTarget, uint64_t line = 0);
    void set(const std::shared_ptr<Target>& pTarget, std::string&& name, obreg::Value&& value, uint64_t line = 0);
    void removeValue(const std::shared_ptr<Target>& pTarget, std::string&& name, uint64_t line = 0);

    /// Waits until nothing is queued or in flight.
    void settle();
    /// Drops what has not begun, unless something given later has.
    void cut();
    /// The same; throws as the others.
    void wait();

    uint64_t done() const;     ///< writes that were carried out
    uint64_t lastLine() const; ///< of the last that was ended, as were all before it
    /// Those that were refused since the last call, of a queue that goes on.
    std::vector<WriteFailure> takeRefused();

private:
    struct Write {
        std::shared_ptr<Target> pTarget;
        std::optional<std::string> name;   ///< none: the key only
        std::optional<obreg::Value> value; ///< none: remove
        uint64_t line;
        uint64_t number = 0; ///< in the order in which they were given
        size_t size() const { return 256 + (name ? name->size() : 0) + (value ? value->data.size() : 0); }
    };
    struct Outcome {
        uint64_t line;
        std::optional<Failure> failure;
    };

    using Lock = std::unique_lock<std::mutex>;
    using Writes = std::vector<Write>;

    void add(Write&& write);
    void work();
    Writes take();
    void carryOut(const Writes& writes, Lock& lock);
    size_t carryOutAsOne(const Writes& writes, size_t begin, Lock& lock);
    void carryOutSingle(const Write& write, Lock& lock);
    static std::optional<BatchFailure> commit(const Writes& writes, size_t begin, size_t end);
    static void run(const Write& write);
    static Outcome outcomeOf(const Write& write);
    void note(uint64_t number, Outcome&& outcome);
    bool isBehindStop(uint64_t number) const { return m_stop && number > *m_stop; }
    WriteFailure failureOfStop(Lock& lock);
    void throwFailure(Lock& lock);

    const bool m_goesOn;
    mutable std::mutex m_mutex; // guards all that follows but the threads and m_unsettled
    std::condition_variable m_more;
    std::condition_variable m_less;
    std::deque<Write> m_writes;
    size_t m_size = 0; // bytes, of those that wait and those in flight
    size_t m_unfinished = 0;
    size_t m_idle = 0; // threads that wait for a write
    uint64_t m_done = 0;
    bool m_ending = false;
    bool m_apart = false; // each write is a request of its own

    uint64_t m_given = 0;                   // the number of the next write
    uint64_t m_settled = 0;                 // all writes below are done, or refused and noted
    std::map<uint64_t, Outcome> m_outcomes; // of those from m_settled on that have ended
    std::optional<uint64_t> m_stop;         // the first that stops the queue
    uint64_t m_begun = 0;                   // the greatest number of those that have begun
    uint64_t m_lastLine = 0;
    std::vector<WriteFailure> m_refused;

    std::unordered_set<size_t> m_unsettled; // hashes of the values written since the last wait()
    std::vector<std::thread> m_threads;
};

} // namespace obregtool

#endif
