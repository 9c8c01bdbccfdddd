#include "daemon/store/positions.h"

#include <algorithm>

namespace obregd {

namespace {

constexpr UINT32 FewSteps = 16; ///< who comes from no farther takes the anchor along

UINT32 countBelow(const std::vector<int64_t>& rows, int64_t row)
{
    return static_cast<UINT32>(std::lower_bound(rows.begin(), rows.end(), row) - rows.begin());
}

bool isBelow(const Cursor& anchor, int64_t row) { return anchor.row < row; }

} // namespace

Positions::View Positions::view() const
{
    const std::lock_guard lock(m_mutex);
    return {m_epoch, m_committed};
}

Walk Positions::shortest(const Place& place, UINT32 index, UINT32 count, const Walk& otherwise)
{
    const std::lock_guard lock(m_mutex);
    const Set* const pSet = find(place);
    if (pSet == nullptr)
        return otherwise;
    const Rows undone = removed(pSet->id, place.view.mark, place.written, pSet->written);
    const auto at = [&](const Cursor& anchor) { return anchor.index + countBelow(undone, anchor.row); };
    const auto next = std::partition_point(pSet->anchors.begin(), pSet->anchors.end(),
                                           [&](const Cursor& anchor) { return at(anchor) <= index; });
    Walk best = otherwise;
    const auto consider = [&](const Cursor& anchor) {
        const Cursor translated{at(anchor), anchor.row};
        if (translated.index > count)
            return;
        const Walk walk = shortestWalk(index, count, &translated);
        if (walk.skip < best.skip)
            best = walk;
    };
    if (next != pSet->anchors.begin())
        consider(*std::prev(next));
    if (next != pSet->anchors.end())
        consider(*next);
    return best;
}

void Positions::leave(const Place& place, const Walk& walk, const Cursor& end)
{
    const std::lock_guard lock(m_mutex);
    if (place.view.epoch != m_epoch)
        return;
    Set* pSet = find(place);
    if (pSet == nullptr && m_byId.contains({place.key, place.entries}))
        return; // too old for the set that there is
    if (pSet == nullptr)
        pSet = &make(place);
    Set& set = *pSet;
    const Rows applied = removed(set.id, place.view.mark, place.written, set.written);
    const Cursor anchor{end.index - countBelow(applied, end.row), end.row};
    const auto origin = std::lower_bound(set.anchors.begin(), set.anchors.end(), walk.from, isBelow);
    const bool moves = walk.skip <= FewSteps && origin != set.anchors.end() && origin->row == walk.from &&
                       origin->index % set.stride != 0;
    if (!moves)
        return insert(set, anchor);
    const bool staysBetween = (origin == set.anchors.begin() || std::prev(origin)->row < anchor.row) &&
                              (std::next(origin) == set.anchors.end() || anchor.row < std::next(origin)->row);
    if (staysBetween) {
        *origin = anchor;
        return;
    }
    set.anchors.erase(origin);
    --m_total;
    insert(set, anchor);
}

void Positions::removing(KeyId key, Entries entries, uint64_t written, int64_t row)
{
    const std::lock_guard lock(m_mutex);
    const Removal removal{{key, entries}, written, row};
    if (m_removals.size() < MaxRemovals)
        m_removals.push_back(removal);
    else
        m_removals[m_noted % MaxRemovals] = removal;
    ++m_noted;
}

uint64_t Positions::noted() const
{
    const std::lock_guard lock(m_mutex);
    return m_noted;
}

void Positions::takeBack(uint64_t noted)
{
    const std::lock_guard lock(m_mutex);
    if (m_noted == noted)
        return;
    if (m_noted > m_removals.size()) // what they took the places of is lost
        return forgetAll();
    m_removals.resize(noted);
    m_noted = noted;
}

void Positions::committed()
{
    const std::lock_guard lock(m_mutex);
    m_committed = m_noted;
}

void Positions::forget()
{
    const std::lock_guard lock(m_mutex);
    forgetAll();
}

void Positions::forgetAll()
{
    ++m_epoch;
    m_byId.clear();
    m_sets.clear();
    m_total = 0;
    m_committed = m_noted;
}

/// The set of a place, as far as it can be used there: brought up to the place's time when it is behind it.
Positions::Set* Positions::find(const Place& place)
{
    const auto found = m_byId.find({place.key, place.entries});
    if (place.view.epoch != m_epoch || found == m_byId.end())
        return nullptr;
    const auto set = found->second;
    if (set->written < place.written && !remembers(set->mark)) {
        drop(set);
        return nullptr;
    }
    if (set->written > place.written && !remembers(place.view.mark))
        return nullptr;
    m_sets.splice(m_sets.begin(), m_sets, set);
    if (set->written < place.written) {
        const Rows rows = removed(set->id, set->mark, set->written, place.written);
        for (Cursor& anchor : set->anchors)
            anchor.index -= countBelow(rows, anchor.row);
        set->written = place.written;
        set->mark = std::max(set->mark, place.view.mark);
    }
    return &*set;
}

/// The rows of a key that are noted as removed after the mark, at times after `after` and not after `until`.
Positions::Rows Positions::removed(const Id& id, uint64_t mark, uint64_t after, uint64_t until) const
{
    Rows rows;
    for (uint64_t number = mark; number < m_noted && after < until; ++number) {
        const Removal& removal = m_removals[number % MaxRemovals];
        if (removal.id == id && removal.written > after && removal.written <= until)
            rows.push_back(removal.row);
    }
    std::sort(rows.begin(), rows.end());
    return rows;
}

Positions::Set& Positions::make(const Place& place)
{
    while (!m_sets.empty() && (m_sets.size() >= MaxSets || m_total >= MaxTotal))
        drop(std::prev(m_sets.end()));
    const Id id{place.key, place.entries};
    const auto entry = m_byId.emplace(id, m_sets.end()).first;
    try {
        m_sets.push_front({id, place.written, place.view.mark});
    } catch (...) {
        m_byId.erase(entry);
        throw;
    }
    entry->second = m_sets.begin();
    return m_sets.front();
}

void Positions::drop(std::list<Set>::iterator set)
{
    m_total -= set->anchors.size();
    m_byId.erase(set->id);
    m_sets.erase(set);
}

void Positions::insert(Set& set, const Cursor& anchor)
{
    const auto at = std::lower_bound(set.anchors.begin(), set.anchors.end(), anchor.row, isBelow);
    if (at != set.anchors.end() && at->row == anchor.row)
        return;
    set.anchors.insert(at, anchor);
    ++m_total;
    while (m_total > MaxTotal && m_sets.size() > 1) // this one was used last, so it is not the last of them
        drop(std::prev(m_sets.end()));
    if (set.anchors.size() > MaxAnchors)
        thin(set);
}

/// Keeps those that are a stride apart, and makes the stride longer when they are too many as well.
void Positions::thin(Set& set)
{
    m_total -= set.anchors.size();
    for (;; set.stride *= 2) {
        UINT32 next = 0;
        std::erase_if(set.anchors, [&](const Cursor& anchor) {
            const bool near = anchor.index < next;
            if (!near)
                next = anchor.index + set.stride;
            return near;
        });
        if (set.anchors.size() <= MaxAnchors / 2)
            break;
    }
    m_total += set.anchors.size();
}

} // namespace obregd
