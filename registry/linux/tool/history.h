// What the daemon remembers of changes: who made them, and what was there before. docs/daemon.md has the questions.
//
// A History gives the changes of one key from now backwards and works out what each made of its value: what was there
// before the next change of the same value, or what is there now. Owned and called by one thread.
#ifndef OBREG_TOOL_HISTORY_H
#define OBREG_TOOL_HISTORY_H

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>

#include <obreg/registry.hpp>

#include "keypath.h"

namespace obregtool {

/// What a value was at some time.
struct Past {
    enum What {
        Absent,
        Data,
        Secret,  ///< its data are of a secret key, which are not written down
        NotKept, ///< its data were too long, or there was no room for them
        Unknown,
    } what = Absent;
    obreg::Value value = {}; ///< of Secret and NotKept the type
    uint64_t length = 0;
};

struct PastChange {
    enum Kind { KeyMade, KeyDeleted, ValueSet, ValueDeleted } kind;
    static constexpr const char* KindNames[] = {"key-made", "key-deleted", "value-set", "value-deleted"};
    uint64_t number;
    uint64_t time; ///< 100 ns units since 1601-01-01 UTC
    uint64_t uid;
    uint64_t pid;
    KeyPath key;
    std::string name; ///< the value's
    Past before;
    uint64_t lost = 0; ///< values that went with the key without being noted
    bool secret = false;

    /// As the daemon and this program call it.
    const char* kindName() const { return KindNames[kind]; }
    bool isOfKey() const { return kind == KeyMade || kind == KeyDeleted; }
};

class History {
public:
    /// Of the key with that name, whether it is there or not, and of all that had that name before. Below it: with all
    /// keys below it.
    History(KeyPath key, bool below) : m_key(std::move(key)), m_below(below) {}

    /// The next older change; nothing at the end of what is kept. Throws Failure.
    std::optional<PastChange> next();
    /// What the change that next() gave last made of its value.
    Past became();
    /// The number of the next change of its value, or of the next key of its name; 0 when there is none.
    uint64_t changedAgain() const;

    /// The number of the oldest change that is kept, of whatever key. After next().
    uint64_t first() const { return m_first; }

    /// Whether something that next() has given was changed again since it was first called.
    bool hasMovedOn() const;
    /// The number of the last change, of whatever key, when next() was first called.
    uint64_t last() const { return m_last; }
    /// The same now; nothing where the daemon keeps no history.
    static std::optional<uint64_t> lastNow();

    /// A change by its number, of whatever key; nothing when there is none, or it is no longer kept.
    static std::optional<PastChange> find(uint64_t number);

private:
    struct Later {
        Past before;
        uint64_t number;
    };
    struct Page {
        uint64_t next, first, last;
        std::deque<PastChange> changes;
    };

    static Page ask(const KeyPath& key, bool below, const std::string& from, bool newestFirst, uint64_t most);
    /// What has happened since next() was first called, the oldest first, as long as f(change) wants more.
    template <class F>
    void forEachSince(const KeyPath& key, bool below, const F& f) const;
    void note(const PastChange& change);
    Past now();

    const KeyPath m_key;
    const bool m_below;
    bool m_asked = false;
    uint64_t m_next = 0, m_first = 0, m_last = 0;
    std::deque<PastChange> m_page;
    std::optional<PastChange> m_current;
    std::map<std::string, Later> m_later; // by key and value: the change after the current one
    std::set<std::string> m_lost;         // keys whose values went without being noted
};

} // namespace obregtool

#endif
