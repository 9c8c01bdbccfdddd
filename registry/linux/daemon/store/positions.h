// Where enumerations stand: shared by all Stores on one file, so that every reader finds entries fast, beside others
// and beside the writer.
//
// For a key and a kind of entry there is a set of anchors, "index entries have rows below row". Who looks for an entry
// starts at the nearest one and leaves one where it arrived; the one it came from moves along, but for those at
// multiples of a stride: they stay, so that no place of a key once read is far from one.
//
// Why anchors stay right. Row numbers of entries only grow and are never used again while the process lives, and a
// value that is replaced keeps its row. So only a removal disturbs: of row r, it moves each anchor with a row above r
// down by one. Readers look at states of different ages. A key's last write time grows with every change of the key, so
// it tells of which age what a reader sees of the key is; a set is valid at one such time, `written`.
//
// The writer notes each removal, with the key's new time, before it commits. A reader takes a View before its state
// begins: `mark` counts the removals whose commit was over by then. Hence what is noted up to the mark is in the
// reader's state; of what is noted after it, exactly that is in the state whose time is not after the key's time there.
// So, for a reader that sees the key at time w,
//   - a set of an earlier time is brought up to w: the removals after the set's own mark with times in (written, w] are
//     applied, and its mark becomes the greater of both;
//   - a set of a later time is translated: the removals after the reader's mark with times in (w, written] are undone
//   in
//     what it reads and applied to what it leaves. An anchor that lies beyond what was there at w shows by an index
//     above the key's count then.
// Only so many removals are remembered; what reaches farther back is not used. A rollback takes back notes, and a
// change from outside the process makes none: both end the epoch, which forgets all anchors and makes older Views
// useless.
//
// One mutex guards everything; each call holds it for microseconds. Any thread.
#ifndef OBREG_DAEMON_STORE_POSITIONS_H
#define OBREG_DAEMON_STORE_POSITIONS_H

#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "daemon/store/enumeration.h"
#include "daemon/tree.h"

namespace obregd {

enum class Entries { SubKeys, Values };

class Positions {
public:
    /// What a state of the store is sure to hold.
    struct View {
        uint64_t epoch = 0;
        uint64_t mark = 0;
    };
    /// The entries of a key as they are in a state.
    struct Place {
        KeyId key;
        Entries entries;
        uint64_t written;
        View view;
    };

    /// To be called before the state begins.
    View view() const;

    /// The shortest walk to an index below count, which is longer than `otherwise` at no time.
    Walk shortest(const Place& place, UINT32 index, UINT32 count, const Walk& otherwise);

    /// Leaves an anchor where a walk ended.
    void leave(const Place& place, const Walk& walk, const Cursor& end);

    // For the writer only.

    /// An entry is being removed; `written` is the key's new time.
    void removing(KeyId key, Entries entries, uint64_t written, int64_t row);
    /// How many removals were noted.
    uint64_t noted() const;
    /// Those that were noted since then are undone.
    void takeBack(uint64_t noted);
    /// All that was noted is in the store now.
    void committed();
    /// What was noted is not, or somebody else has changed the store. Any thread may say so.
    void forget();

private:
    static constexpr size_t MaxRemovals = 8192;
    static constexpr size_t MaxSets = 1024;
    static constexpr size_t MaxAnchors = 4096; // in a set
    static constexpr size_t MaxTotal = 65536;

    using Id = std::pair<KeyId, Entries>;
    struct Removal {
        Id id;
        uint64_t written;
        int64_t row;
    };
    struct Set {
        Id id;
        uint64_t written;
        uint64_t mark; // removals up to here are in it
        UINT32 stride = Stride;
        std::vector<Cursor> anchors{}; // by row, and so by index
    };
    using Rows = std::vector<int64_t>; // sorted

    void forgetAll();
    Set* find(const Place& place);
    bool remembers(uint64_t mark) const { return m_noted - mark <= m_removals.size(); }
    Rows removed(const Id& id, uint64_t mark, uint64_t after, uint64_t until) const;
    Set& make(const Place& place);
    void drop(std::list<Set>::iterator set);
    void insert(Set& set, const Cursor& anchor);
    void thin(Set& set);

    mutable std::mutex m_mutex; // guards what follows
    uint64_t m_epoch = 0;
    uint64_t m_noted = 0;            // removals ever noted
    uint64_t m_committed = 0;        // of them, those that are surely in the store
    std::vector<Removal> m_removals; // a ring: the n-th ever, from 0, is at n % MaxRemovals
    std::list<Set> m_sets;           // the last used first
    std::map<Id, std::list<Set>::iterator> m_byId;
    size_t m_total = 0; // anchors
};

} // namespace obregd

#endif
