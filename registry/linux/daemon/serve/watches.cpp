#include "daemon/serve/watches.h"

#include <unordered_set>
#include <utility>

#include "daemon/serve/connection.h"

namespace obregd {

void Watches::add(JobPtr pJob, const Wait& wait, Clock::time_point now)
{
    if (!pJob->waitsUntil)
        pJob->waitsUntil = now + wait.atMost;
    const Connection* const pConnection = pJob->pConnection.get();
    Entries one;
    one.push_back({{std::move(pJob), wait}, m_byTime.end(), m_byId.end(), m_byConnection.end()});
    Entry& entry = one.front();
    try {
        entry.time = m_byTime.emplace(*entry.watch.pJob->waitsUntil, one.begin());
        if (wait.id != 0)
            entry.id = m_byId.emplace(std::pair(&pConnection->user(), wait.id), one.begin());
        entry.connection = m_byConnection.emplace(pConnection, one.begin());
        Entries& entries = m_waiting[wait.watched.key];
        entries.splice(entries.end(), one);
    } catch (...) {
        leaveIndexes(entry);
        throw;
    }
}

void Watches::leaveIndexes(Entry& entry)
{
    const auto leave = [](auto& index, auto& place) {
        if (place != index.end())
            index.erase(std::exchange(place, index.end()));
    };
    leave(m_byTime, entry.time);
    leave(m_byId, entry.id);
    leave(m_byConnection, entry.connection);
}

/// Wakes those who watch a key, or those who watch what is below it as well, of a change with that number.
void Watches::wake(KeyId key, bool above, int64_t number)
{
    const auto found = m_waiting.find(key);
    if (found == m_waiting.end())
        return;
    Entries& entries = found->second;
    for (auto entry = entries.begin(); entry != entries.end();) {
        const auto next = std::next(entry);
        Watched& watched = entry->watch.wait.watched;
        if (watched.since < number && (!above || watched.subTree)) {
            if (number != INT64_MAX)
                watched.since = number - 1; // all before that was none of its concern
            leaveIndexes(*entry);
            m_awake.splice(m_awake.end(), entries, entry);
        }
        entry = next;
    }
    if (entries.empty())
        m_waiting.erase(found);
}

void Watches::move(Entries::iterator entry, Entries& to)
{
    const auto found = m_waiting.find(entry->watch.wait.watched.key);
    leaveIndexes(*entry);
    to.splice(to.end(), found->second, entry);
    if (found->second.empty())
        m_waiting.erase(found);
}

void Watches::touched(const std::vector<Touched>& changes, Store& store)
{
    std::unordered_set<KeyId> seen;
    std::unordered_set<KeyId> seenAbove;
    for (const Touched& change : changes) {
        if (m_waiting.empty())
            return;
        for (const KeyId key : {change.key, change.parent})
            if (key != 0 && seen.insert(key).second)
                wake(key, false, change.number);
        KeyId key = change.parent != 0 ? change.parent : change.key;
        while (seenAbove.insert(key).second) {
            const auto above = store.parentOf(key);
            if (!above)
                return wakeAll(); // the journal has forgotten where it was
            if (*above == 0)
                break;
            key = *above;
            wake(key, true, change.number);
        }
    }
}

std::optional<Watches::Clock::time_point> Watches::timeIsUp(Clock::time_point now)
{
    while (!m_byTime.empty() && m_byTime.begin()->first <= now)
        wake(m_byTime.begin()->second);
    return m_byTime.empty() ? std::nullopt : std::optional(m_byTime.begin()->first);
}

void Watches::wakeAll() { static_cast<void>(timeIsUp(Clock::time_point::max())); }

size_t Watches::end(const User& user, uint64_t id)
{
    size_t ended = 0;
    const auto endOne = [&](const Watch& watch) {
        watch.pJob->waitsUntil = Clock::time_point::min();
        ++ended;
    };
    for (const Entry& entry : m_awake) { // perhaps for nothing
        const Connection& connection = *entry.watch.pJob->pConnection;
        if (entry.watch.wait.id == id && &connection.user() == &user && connection.isOpen())
            endOne(entry.watch);
    }
    const std::pair key(&user, id);
    for (auto found = m_byId.find(key); found != m_byId.end(); found = m_byId.find(key)) {
        endOne(found->second->watch);
        wake(found->second);
    }
    return ended;
}

Watches::Watch Watches::takeAwake()
{
    Watch watch = std::move(m_awake.front().watch);
    m_awake.pop_front();
    return watch;
}

size_t Watches::drop(const Connection& connection)
{
    Entries dropped;
    for (auto found = m_byConnection.find(&connection); found != m_byConnection.end();
         found = m_byConnection.find(&connection))
        move(found->second, dropped);
    return dropped.size();
}

} // namespace obregd
