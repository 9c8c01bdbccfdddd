#include "daemon/serve/watches.h"

#include <unordered_set>

#include "daemon/serve/connection.h"

namespace obregd {

void Watches::add(JobPtr pJob, const Wait& wait, Clock::time_point now)
{
    insert({std::move(pJob), wait, now + wait.atMost});
}

void Watches::addAgain(Watch&& watch) { insert(std::move(watch)); }

void Watches::insert(Watch&& watch)
{
    Entries& entries = m_waiting[watch.wait.watched.key];
    const auto time = m_byTime.emplace(watch.until, entries.end());
    auto id = m_byId.end();
    try {
        if (watch.wait.id != 0)
            id = m_byId.emplace(std::pair(&watch.pJob->pConnection->user(), watch.wait.id), entries.end());
        entries.push_back({std::move(watch), time, id});
    } catch (...) {
        m_byTime.erase(time);
        if (id != m_byId.end())
            m_byId.erase(id);
        throw;
    }
    time->second = std::prev(entries.end());
    if (id != m_byId.end())
        id->second = time->second;
}

void Watches::erase(Entries& entries, Entries::iterator entry)
{
    m_byTime.erase(entry->time);
    if (entry->id != m_byId.end())
        m_byId.erase(entry->id);
    entries.erase(entry);
}

/// The same, where the list goes when nothing is left in it.
void Watches::erase(Entries::iterator entry)
{
    const auto found = m_waiting.find(entry->watch.wait.watched.key);
    erase(found->second, entry);
    if (found->second.empty())
        m_waiting.erase(found);
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
            m_awake.push_back(std::move(entry->watch));
            erase(entries, entry);
        }
        entry = next;
    }
    if (entries.empty())
        m_waiting.erase(found);
}

void Watches::wake(Entries::iterator entry)
{
    m_awake.push_back(std::move(entry->watch));
    erase(entry);
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
    const auto endOne = [&](Watch& watch) {
        watch.until = Clock::time_point::min();
        ++ended;
    };
    for (Watch& watch : m_awake) // perhaps for nothing
        if (watch.wait.id == id && &watch.pJob->pConnection->user() == &user)
            endOne(watch);
    const std::pair key(&user, id);
    for (auto found = m_byId.find(key); found != m_byId.end(); found = m_byId.find(key)) {
        endOne(found->second->watch);
        wake(found->second);
    }
    return ended;
}

Watches::Watch Watches::takeAwake()
{
    Watch watch = std::move(m_awake.front());
    m_awake.pop_front();
    return watch;
}

std::list<Watches::Watch> Watches::takeOf(const Connection& connection)
{
    std::list<Watch> taken;
    const auto isOf = [&](const Watch& watch) { return watch.pJob->pConnection.get() == &connection; };
    for (auto time = m_byTime.begin(); time != m_byTime.end();) {
        const auto entry = time->second;
        ++time;
        if (!isOf(entry->watch))
            continue;
        taken.push_back(std::move(entry->watch));
        erase(entry);
    }
    for (auto watch = m_awake.begin(); watch != m_awake.end();) {
        const auto next = std::next(watch);
        if (isOf(*watch))
            taken.splice(taken.end(), m_awake, watch);
        watch = next;
    }
    return taken;
}

} // namespace obregd
