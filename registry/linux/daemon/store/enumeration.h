// Finding the entry at a position of a key without counting from the first one each time.
//
// The store holds a key's sub-keys, and its values, in the order in which they were made, by row number. An entry can
// be reached from either end or from a place that an earlier reader left (positions.h), whichever is nearest.
//
// Plain values and functions; any thread.
#ifndef OBREG_DAEMON_STORE_ENUMERATION_H
#define OBREG_DAEMON_STORE_ENUMERATION_H

#include <cstdint>
#include <limits>

#include "obreg/obreg.h"

namespace obregd {

/// A place in an enumeration: `index` entries have rows below `row`.
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

/// A long walk is made in pieces that end at multiples of this, and leaves its traces there.
inline constexpr UINT32 Stride = 1024;

/// The first piece of a walk to index, and the index at which it ends. A short walk is its own first piece.
struct Piece {
    Walk walk;
    UINT32 end;
};
inline Piece firstPiece(const Walk& walk, UINT32 index)
{
    if (walk.skip <= Stride)
        return {walk, index};
    const UINT32 begin = walk.up ? index - walk.skip : index + walk.skip;
    const UINT32 end = walk.up ? (begin / Stride + 1) * Stride : begin / Stride * Stride;
    return {{walk.up, walk.from, walk.up ? end - begin : begin - end}, end};
}

} // namespace obregd

#endif
