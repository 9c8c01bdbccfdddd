// An engine in memory, shared by what stands for several machines; with faults: answers that get lost, changes that are
// made after their answer was given up, an engine that is away, history that is compacted.
#ifndef OBREG_TESTS_MEMORY_ENGINE_H
#define OBREG_TESTS_MEMORY_ENGINE_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "daemon/engine/engine.h"

/// What all of them share. Any thread.
class MemoryCluster {
public:
    using Revision = obregd::engine::Revision;
    using Outcome = obregd::engine::Outcome;

    std::atomic<bool> away{false};
    std::atomic<int> lossPercent{0}; ///< answers that get lost, before or after the change is made, or long before

    Outcome commit(const obregd::engine::Transaction& transaction)
    {
        const std::lock_guard lock(m_mutex);
        Outcome outcome{Outcome::End::NotDone, m_revision};
        for (const auto& compare : transaction.compares)
            if (!holds(compare)) {
                if (const auto at = m_entries.find(transaction.asked); at != m_entries.end())
                    outcome.asked = at->second;
                return outcome;
            }
        Revision revision{++m_revision, {}};
        for (const auto& operation : transaction.operations) {
            if (operation.kind == obregd::engine::Operation::Kind::Put) {
                auto& entry = m_entries[operation.key];
                entry = {operation.key, operation.value, entry.created == 0 ? m_revision : entry.created, m_revision};
                revision.events.push_back({false, entry});
                continue;
            }
            const std::string end = operation.end.empty() ? operation.key + '\0' : operation.end;
            for (auto at = m_entries.lower_bound(operation.key); at != m_entries.end() && at->first < end;) {
                revision.events.push_back({true, {at->first, {}, 0, m_revision}});
                at = m_entries.erase(at);
            }
        }
        m_history.push_back(std::move(revision));
        m_changed.notify_all();
        return {Outcome::End::Done, m_revision};
    }

    obregd::engine::Page read(const std::string& from, const std::string& end, size_t most)
    {
        const std::lock_guard lock(m_mutex);
        obregd::engine::Page page;
        page.good = !away;
        page.revision = m_revision;
        for (auto at = m_entries.lower_bound(from); page.good && at != m_entries.end() && at->first < end; ++at) {
            if (page.entries.size() == most) { // at one revision: the test reads all at once
                page.more = true;
                break;
            }
            page.entries.push_back(at->second);
        }
        return page;
    }

    void compact()
    {
        const std::lock_guard lock(m_mutex);
        m_history.clear();
        m_compacted = m_revision;
    }

    /// What changed there after that revision, when something has; nothing while away or when the time is up. False:
    /// compacted.
    bool wait(const std::string& from, const std::string& end, int64_t& after, std::vector<Revision>& changes)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(5), [&] { return m_revision > after; });
        if (away || m_revision <= after)
            return true;
        if (after < m_compacted)
            return false;
        for (const Revision& revision : m_history) {
            Revision part{revision.number, {}};
            for (const auto& event : revision.events)
                if (revision.number > after && event.entry.key >= from && event.entry.key < end)
                    part.events.push_back(event);
            if (!part.events.empty())
                changes.push_back(std::move(part));
        }
        after = m_revision;
        return true;
    }

private:
    bool holds(const obregd::engine::Compare& compare)
    {
        using What = obregd::engine::Compare::What;
        using Is = obregd::engine::Compare::Is;
        const auto holdsFor = [&](const obregd::engine::Entry& entry) {
            if (compare.what == What::Value)
                return (entry.value == compare.value && entry.created != 0) == (compare.is == Is::Equal);
            const int64_t number = compare.what == What::Created ? entry.created : entry.modified;
            return compare.is == Is::Equal      ? number == compare.number
                   : compare.is == Is::NotEqual ? number != compare.number
                   : compare.is == Is::Less     ? number < compare.number
                                                : number > compare.number;
        };
        auto at = m_entries.lower_bound(compare.key);
        const std::string end = compare.end.empty() ? compare.key + '\0' : compare.end;
        if (at == m_entries.end() || at->first >= end)
            return holdsFor({});
        for (; at != m_entries.end() && at->first < end; ++at)
            if (!holdsFor(at->second))
                return false;
        return true;
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, obregd::engine::Entry> m_entries;
    std::deque<Revision> m_history;
    int64_t m_revision = 1;
    int64_t m_compacted = 0;
};

/// One machine's way to it: a thread makes its changes, one watches.
class MemoryEngine final : public obregd::engine::Engine {
public:
    using Transaction = obregd::engine::Transaction;
    using Outcome = obregd::engine::Outcome;

    explicit MemoryEngine(MemoryCluster& cluster) : m_cluster(cluster), m_thread([this] { work(); }) {}
    ~MemoryEngine() override
    {
        {
            const std::lock_guard lock(m_mutex);
            m_ending = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }

    void commit(Transaction&& transaction, std::chrono::milliseconds /*patience*/,
                std::function<void(Outcome&&)> done) override
    {
        const std::lock_guard lock(m_mutex);
        m_asked.push_back({std::move(transaction), std::move(done)});
        m_changed.notify_all();
    }
    obregd::engine::Page read(const std::string& from, const std::string& end, int64_t /*revision*/, size_t most,
                              std::chrono::milliseconds /*patience*/) override
    {
        return m_cluster.read(from, end, most == 1 ? 1 : SIZE_MAX);
    }
    std::unique_ptr<Watch> watch(const std::string& from, const std::string& end, int64_t after,
                                 obregd::engine::Watcher& watcher) override
    {
        return std::make_unique<Watching>(m_cluster, from, end, after, watcher);
    }
    std::string members(std::chrono::milliseconds /*patience*/) override { return "memory"; }
    size_t mostOperations() const override { return 128; }
    size_t longestValue() const override { return 1u << 20; }

private:
    struct Watching : Watch {
        Watching(MemoryCluster& cluster, std::string from, std::string end, int64_t after,
                 obregd::engine::Watcher& watcher)
            : thread([this, &cluster, from, end, after, &watcher] {
                  bool wasAway = true;
                  for (int64_t at = after; !ends;) {
                      std::vector<obregd::engine::Revision> changes;
                      if (const bool isAway = cluster.away; isAway != wasAway)
                          watcher.reached(!(wasAway = isAway), "");
                      if (!cluster.wait(from, end, at, changes))
                          return watcher.compacted();
                      if (!changes.empty())
                          watcher.changed(std::move(changes));
                  }
              })
        {}
        ~Watching() override
        {
            ends = true;
            thread.join();
        }
        std::atomic<bool> ends{false};
        std::thread thread;
    };
    struct Asked {
        Transaction transaction;
        std::function<void(Outcome&&)> done;
    };

    void work()
    {
        std::vector<Transaction> late;
        for (;;) {
            std::unique_lock lock(m_mutex);
            m_changed.wait_for(lock, std::chrono::milliseconds(10), [this] { return m_ending || !m_asked.empty(); });
            std::deque<Asked> asked = std::exchange(m_asked, {});
            const bool ends = m_ending;
            lock.unlock();
            for (const Transaction& transaction : std::exchange(late, {}))
                m_cluster.commit(transaction); // nobody waits for it any more
            for (Asked& one : asked) {
                const int fate = static_cast<int>(m_random() % 300);
                const int loss = m_cluster.lossPercent;
                const bool lost = m_cluster.away || fate < 3 * loss;
                if (lost && fate % 3 == 0)
                    late.push_back(one.transaction);
                if (!lost)
                    one.done(m_cluster.commit(one.transaction));
                else if (!m_cluster.away && fate % 3 == 1)
                    m_cluster.commit(one.transaction);
                if (lost)
                    one.done(Outcome());
            }
            if (ends)
                return;
        }
    }

    MemoryCluster& m_cluster;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Asked> m_asked;
    bool m_ending = false;
    std::mt19937 m_random{std::random_device()()};
    std::thread m_thread;
};

#endif
