// Finding the entry at a position of a key without counting from the first one each time.
//
// The store holds a key's sub-keys, and its values, in the order in which they were made, by row number. An entry can
// be reached from either end or from where the last enumeration of that key stood, whichever is nearest, so reading a
// key entry by entry, in either direction, takes time in proportion to its entries.
//
// A KeyFacts belongs to one Store and its thread.
#ifndef OBREG_DAEMON_STORE_ENUMERATION_H
#define OBREG_DAEMON_STORE_ENUMERATION_H

#include <cstdint>
#include <limits>
#include <unordered_map>

#include "daemon/tree.h"

namespace obregd {

/// Something worked out about keys. It holds for a key until the key changes: the last write time, which grows with
/// every change, tells.
template <class Fact>
class KeyFacts {
public:
    const Fact* find(KeyId id, uint64_t written) const
    {
        const auto found = m_facts.find(id);
        return found != m_facts.end() && found->second.written == written ? &found->second.fact : nullptr;
    }

    void keep(KeyId id, uint64_t written, const Fact& fact)
    {
        if (m_facts.size() >= MaxKeys)
            m_facts.clear();
        m_facts.insert_or_assign(id, Dated{written, fact});
    }

    void clear() { m_facts.clear(); }

private:
    static constexpr size_t MaxKeys = 1024;
    struct Dated {
        uint64_t written;
        Fact fact;
    };
    std::unordered_map<KeyId, Dated> m_facts;
};

/// Where an enumeration stands: `index` entries have rows below `row`.
struct Cursor {
    UINT32 index;
    int64_t row;
};

/// How to reach an entry. Upwards: skip that many of the rows from `from` on. Downwards: of the rows below `from`.
struct Walk {
    bool up;
    int64_t from;
    UINT32 skip;
};

/// The shortest walk to the entry at index, which is below count; pCursor may be null.
inline Walk shortestWalk(UINT32 index, UINT32 count, const Cursor* pCursor)
{
    Walk walk{true, 0, index};
    if (count - 1 - index < walk.skip)
        walk = {false, std::numeric_limits<int64_t>::max(), count - 1 - index};
    if (pCursor != nullptr && index >= pCursor->index && index - pCursor->index <= walk.skip)
        walk = {true, pCursor->row, index - pCursor->index};
    else if (pCursor != nullptr && index < pCursor->index && pCursor->index - index - 1 < walk.skip)
        walk = {false, pCursor->row, pCursor->index - index - 1};
    return walk;
}

} // namespace obregd

#endif
