// The requests that wait for replies, by their ids: an ordered map that keeps its memory.
//
// Ids are handed out in ascending order, so a new one nearly always belongs at the end, and few are pending at a time:
// a sorted array serves both better than a tree (std::map: 198 more than the 4,115 instructions of a request), and
// allocates only when more requests are pending than ever before.
// It owns nothing and locks nothing.
#ifndef OBREG_CLIENT_PENDINGREQS_H
#define OBREG_CLIENT_PENDINGREQS_H

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

class ClientReq;

class PendingReqs {
public:
    struct Entry {
        uint32_t reqId;
        ClientReq* pClientReq;
    };

    /// False, with nothing changed, when the id is taken. Throws std::bad_alloc, with nothing changed.
    bool insert(uint32_t reqId, ClientReq* pClientReq)
    {
        const auto place = m_entries.begin() + position(reqId);
        if (place != m_entries.end() && place->reqId == reqId)
            return false;
        m_entries.insert(place, {reqId, pClientReq});
        look();
        return true;
    }

    /// False when there is no such id.
    bool erase(uint32_t reqId)
    {
        const auto place = m_entries.begin() + position(reqId);
        if (place == m_entries.end() || place->reqId != reqId)
            return false;
        m_entries.erase(place);
        look();
        return true;
    }

    /// Null when there is no such id.
    ClientReq* find(uint32_t reqId) const
    {
        const auto place = m_entries.begin() + position(reqId);
        return place != m_entries.end() && place->reqId == reqId ? place->pClientReq : nullptr;
    }

    /// Whether the newest is the only one that was made lately: those that the daemon keeps until something changes do
    /// not count, once some other requests have come and gone. As it was a moment ago, for who does not hold the lock
    /// that guards the rest.
    bool newestIsAlone() const { return m_newestIsAlone.load(std::memory_order_relaxed); }

    /// In ascending order of ids.
    std::vector<Entry>::const_iterator begin() const { return m_entries.begin(); }
    std::vector<Entry>::const_iterator end() const { return m_entries.end(); }

private:
    /// Of the first entry whose id is not less.
    ptrdiff_t position(uint32_t reqId) const
    {
        if (m_entries.empty() || m_entries.back().reqId < reqId)
            return static_cast<ptrdiff_t>(m_entries.size());
        const auto less = [](const Entry& entry, uint32_t id) { return entry.reqId < id; };
        return std::lower_bound(m_entries.begin(), m_entries.end(), reqId, less) - m_entries.begin();
    }

    void look()
    {
        constexpr uint32_t Lately = 64; // requests
        const size_t count = m_entries.size();
        const bool alone = count < 2 || m_entries[count - 1].reqId - m_entries[count - 2].reqId > Lately;
        m_newestIsAlone.store(alone, std::memory_order_relaxed);
    }

    std::vector<Entry> m_entries;
    std::atomic<bool> m_newestIsAlone{true};
};

#endif
