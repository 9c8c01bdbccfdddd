// What the daemon needs of an engine that keeps entries for several machines: an ordered map of byte strings with
// revisions, compare-and-commit, and a watch that tells every change in order.
//
// An engine is a library of its own (see loadEngine in loaded.h), so that the daemon needs none; this header is all
// that the two know of each other. It speaks of entries and knows nothing of registries. Any thread may call; callbacks
// come on threads of the engine's and may call it again. The destructor waits for callbacks that run, and answers what
// is still asked with Outcome::Unknown or an error.
#ifndef OBREGD_ENGINE_ENGINE_H
#define OBREGD_ENGINE_ENGINE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace obregd::engine {

struct Entry {
    std::string key;
    std::string value;
    int64_t created = 0;  ///< the revision in which it came into being
    int64_t modified = 0; ///< the revision of its last change
};

/// Holds for one entry, or for each in [key, end) when `end` is not empty. Of one that is not there all numbers are 0,
/// and a range without entries is as one that is not there.
struct Compare {
    enum class What { Created, Modified, Value } what;
    enum class Is { Equal, NotEqual, Less, Greater } is;
    std::string key;
    std::string end{};
    int64_t number = 0;
    std::string value{};
};

/// Sets an entry; or deletes one, or all in [key, end).
struct Operation {
    enum class Kind { Put, Delete } kind;
    std::string key;
    std::string value{};
    std::string end{};
};

/// When all comparisons hold, all operations are done, in one revision; else none.
struct Transaction {
    std::vector<Compare> compares;
    std::vector<Operation> operations;
    std::string asked{}; ///< when a comparison does not hold, this entry is told
};

struct Outcome {
    enum class End {
        Done,
        NotDone, ///< a comparison did not hold
        Refused, ///< the engine takes no such transaction; `why` says the reason
        Unknown, ///< no answer came: it may have been done, or may still be
    } end = End::Unknown;
    int64_t revision = 0;         ///< of the change; of NotDone, in which it was judged
    std::optional<Entry> asked{}; ///< of NotDone, when that entry is there
    std::string why{};
};

/// A part of a range at one revision.
struct Page {
    bool good = false;            ///< else `why` says why not
    bool compacted = false;       ///< not good, because the revision that was asked for is no longer kept
    std::vector<Entry> entries{}; ///< in order of key
    bool more = false;
    int64_t revision = 0;
    std::string why{};
};

/// What changed in one revision, in the order of its operations.
struct Revision {
    struct Event {
        bool isDeletion;
        Entry entry; ///< of a deletion only key and `modified`
    };
    int64_t number = 0;
    std::vector<Event> events;
};

/// Who watches. May block: then the engine tells more slowly. It is called by one thread at a time.
class Watcher {
public:
    virtual ~Watcher() = default;
    /// Whole revisions, each once and in order; also those that were made while the engine could not be reached.
    virtual void changed(std::vector<Revision>&& revisions) = 0;
    /// The revision to go on from is no longer kept. Nothing more is told: the range is to be read, and watched anew.
    virtual void compacted() = 0;
    /// The engine is reached, or is not any more, and why.
    virtual void reached(bool isReached, const std::string& why) = 0;
};

class Engine {
public:
    virtual ~Engine() = default;

    /// `patience`: Outcome::Unknown at the latest after that.
    virtual void commit(Transaction&& transaction, std::chrono::milliseconds patience,
                        std::function<void(Outcome&&)> done) = 0;

    /// Entries of [from, end) at a revision, or now for 0, as of now for all machines. Waits; at most so long.
    virtual Page read(const std::string& from, const std::string& end, int64_t revision, size_t most,
                      std::chrono::milliseconds patience) = 0;

    /// Tells of changes in [from, end) after a revision until the handle is destroyed, which waits for a call that
    /// runs. The watcher outlives it.
    class Watch {
    public:
        virtual ~Watch() = default;
    };
    virtual std::unique_ptr<Watch> watch(const std::string& from, const std::string& end, int64_t after,
                                         Watcher& watcher) = 0;

    /// Who makes up the engine, one name and state a line; for people. Waits; at most so long.
    virtual std::string members(std::chrono::milliseconds patience) = 0;

    virtual size_t mostOperations() const = 0; ///< of a transaction
    virtual size_t longestValue() const = 0;   ///< bytes of an entry's key and value
};

struct Options {
    std::vector<std::string> endpoints; ///< "https://host:port" or "http://host:port"
    std::string authority{};            ///< file with the certificates that are trusted, PEM; empty: the system's
    std::string certificate{};          ///< files of one's own, PEM; empty: none
    std::string key{};
    std::string user{};
    std::string password{};
};

/// What the library exports as "obregd_engine_open": null when it cannot be, and the reason. It need not reach anybody
/// yet. `version` is that of this header; another one is refused.
inline constexpr int Version = 1;
using Open = Engine*(int version, const Options& options, std::string& why);

} // namespace obregd::engine

#endif
