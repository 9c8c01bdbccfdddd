// A key and what is below it, one key after the other in the order of the tree, read ahead by several threads.
//
// The keys that come next are read while the caller works on one, many at a time but bounded in number and in bytes;
// a key that nobody has begun is read by the caller itself, so it never waits for room. Owned and called by one thread.
#ifndef OBREG_TOOL_TREEREADER_H
#define OBREG_TOOL_TREEREADER_H

#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "readtree.h"

namespace obregtool {

class TreeReader {
public:
    /// What is up to `depth` levels below the key; 0: the key alone.
    TreeReader(const KeyPath& path, uint64_t depth, Read what);
    ~TreeReader();
    TreeReader(const TreeReader&) = delete;
    TreeReader& operator=(const TreeReader&) = delete;

    struct Entry {
        KeyPath path;
        size_t depth;
        obreg::Key key;
        KeyContent content;
    };

    /// The next key, each before its sub-keys and these in order of name; null at the end. It stays until the next
    /// call; its values may be taken. Sub-keys that vanish meanwhile are left out. Throws Failure.
    Entry* next();

    /// Leaves out what is below the key that next() gave last.
    void skipBelow();

private:
    /// Where a key stands in the tree: the positions of its ancestors and of itself among their siblings.
    using Order = std::vector<size_t>;
    enum class State { Reading, Read, Gone, Failed };
    struct Node {
        Node(Order place, KeyPath path, std::atomic<size_t>& allHeld)
            : order(std::move(place)), entry{std::move(path), order.size(), {}, {}}, held(allHeld)
        {}

        const Order order;
        Entry entry;
        HeldBytes held;
        State state = State::Reading;
        std::exception_ptr pFailure;
        bool skipped = false;
        size_t begun = 0;                        ///< sub-keys, from the first, that somebody reads or has read
        std::deque<std::shared_ptr<Node>> ahead; ///< of these, those that next() has not come to
    };

    bool hasMore(const Node& node) const;
    std::shared_ptr<Node> begin(Node& parent);
    void read(const Node& parent, Node& node) const;
    void settle(const std::shared_ptr<Node>& pNode);
    void skip(Node& node);
    void startThreads();
    void work();

    const uint64_t m_depth;
    const Read m_what;
    std::atomic<size_t> m_held{0};

    std::mutex m_mutex; // guards all that follows but the threads, and in nodes what changes after they are read
    std::condition_variable m_more;
    std::condition_variable m_read;
    std::map<Order, std::shared_ptr<Node>> m_open; // by the first sub-key that nobody has begun
    std::vector<std::shared_ptr<Node>> m_done;     // closing a key is a request as well
    size_t m_found = 0;
    size_t m_ahead = 0;
    bool m_ending = false;

    std::vector<std::shared_ptr<Node>> m_way; // from the top to the key that next() gave last
    bool m_begun = false;
    std::vector<std::thread> m_threads;
};

} // namespace obregtool

#endif
