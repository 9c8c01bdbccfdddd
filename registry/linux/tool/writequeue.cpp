#include "writequeue.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "parallel.h"
#include "text.h"

namespace obregtool {

namespace {

constexpr size_t MaxQueued = 4096;
constexpr size_t MaxQueuedBytes = 16u << 20;
constexpr size_t MaxUnsettled = 16384;
constexpr size_t MostInTransaction = 256; // writes in a transaction
constexpr size_t MostBytesInTransaction = 256u << 10;
constexpr size_t ThreadsOfTransactions = 4;

} // namespace

const obreg::Key& Target::key()
{
    const std::lock_guard lock(m_mutex);
    if (!m_key) {
        std::error_code error;
        m_key = makeKey(m_path, nullptr, error);
        check(error, m_path);
    }
    return m_key;
}

WriteQueue::~WriteQueue()
{
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
        m_writes.clear();
        m_more.notify_all();
    }
    for (std::thread& thread : m_threads)
        thread.join();
}

void WriteQueue::createKey(const std::shared_ptr<Target>& pTarget, uint64_t line)
{
    add({pTarget, std::nullopt, std::nullopt, line});
}

void WriteQueue::set(const std::shared_ptr<Target>& pTarget, std::string&& name, obreg::Value&& value, uint64_t line)
{
    add({pTarget, std::move(name), std::move(value), line});
}

void WriteQueue::removeValue(const std::shared_ptr<Target>& pTarget, std::string&& name, uint64_t line)
{
    add({pTarget, std::move(name), std::nullopt, line});
}

void WriteQueue::add(Write&& write)
{
    if (write.name) {
        // Two values of one hash wait for each other without need, which does no harm.
        const size_t hash = std::hash<std::string>()(write.pTarget->identity() + '\n' + folded(*write.name));
        if (m_unsettled.count(hash) != 0 || m_unsettled.size() >= MaxUnsettled)
            wait();
        m_unsettled.insert(hash);
    }
    const size_t size = write.size();
    std::unique_lock lock(m_mutex);
    m_less.wait(lock, [&] {
        return m_stop || m_unfinished == 0 || (m_unfinished < MaxQueued && m_size + size <= MaxQueuedBytes);
    });
    throwFailure(lock);
    write.number = m_given++;
    m_size += size;
    ++m_unfinished;
    m_writes.push_back(std::move(write));
    if (m_writes.size() > m_idle && m_threads.size() < (m_apart ? RequestThreads : ThreadsOfTransactions)) {
        try {
            m_threads.emplace_back([this] { work(); });
        } catch (const std::system_error&) { // fewer do it as well
            if (m_threads.empty())
                throw;
        }
    }
    m_more.notify_one();
}

void WriteQueue::settle()
{
    m_unsettled.clear();
    std::unique_lock lock(m_mutex);
    m_less.wait(lock, [this] { return m_unfinished == 0; });
}

void WriteQueue::cut()
{
    const std::lock_guard lock(m_mutex);
    const auto late = std::stable_partition(m_writes.begin(), m_writes.end(),
                                            [this](const Write& write) { return write.number <= m_begun; });
    for (auto at = late; at != m_writes.end(); ++at)
        m_size -= at->size();
    m_unfinished -= static_cast<size_t>(m_writes.end() - late);
    m_writes.erase(late, m_writes.end());
    m_less.notify_one();
}

void WriteQueue::wait()
{
    settle();
    std::unique_lock lock(m_mutex);
    throwFailure(lock);
}

uint64_t WriteQueue::done() const
{
    const std::lock_guard lock(m_mutex);
    return m_done;
}

uint64_t WriteQueue::lastLine() const
{
    const std::lock_guard lock(m_mutex);
    return m_lastLine;
}

std::vector<WriteFailure> WriteQueue::takeRefused()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_refused, {});
}

WriteFailure WriteQueue::failureOfStop(Lock& lock)
{
    m_less.wait(lock, [this] { return m_unfinished == 0; }); // an earlier one may be refused as well
    const Outcome& first = m_outcomes.at(*m_stop);
    WriteFailure failure(*first.failure, first.line);
    for (auto at = m_outcomes.upper_bound(*m_stop); at != m_outcomes.end(); ++at) {
        const std::optional<Failure>& later = at->second.failure;
        if (!later)
            failure.after.push_back(at->second.line);
        else if (later->status == OBREG_STATUS_REQUEST_FAILED)
            failure.unknown.push_back(at->second.line);
    }
    return failure;
}

void WriteQueue::throwFailure(Lock& lock)
{
    if (m_stop)
        throw failureOfStop(lock);
}

void WriteQueue::work()
{
    Lock lock(m_mutex);
    for (;;) {
        ++m_idle;
        m_more.wait(lock, [this] { return m_ending || !m_writes.empty(); });
        --m_idle;
        if (m_writes.empty())
            return;
        Writes writes = take();
        size_t size = 0;
        for (const Write& write : writes)
            size += write.size();
        const size_t count = writes.size();
        carryOut(writes, lock);
        lock.unlock();
        writes.clear(); // may close keys
        lock.lock();
        m_size -= size;
        m_unfinished -= count;
        m_less.notify_one();
    }
}

/// The writes that come next, one or what makes a transaction.
WriteQueue::Writes WriteQueue::take()
{
    Writes writes;
    size_t size = 0;
    do {
        size += m_writes.front().size();
        writes.push_back(std::move(m_writes.front()));
        m_writes.pop_front();
    } while (!m_apart && !m_writes.empty() && writes.size() < MostInTransaction &&
             size + m_writes.front().size() <= MostBytesInTransaction);
    m_begun = std::max(m_begun, writes.back().number);
    return writes;
}

void WriteQueue::carryOut(const Writes& writes, Lock& lock)
{
    for (size_t i = 0; i < writes.size() && !isBehindStop(writes[i].number);) {
        const size_t end = carryOutAsOne(writes, i, lock);
        if (end == i)
            carryOutSingle(writes[i], lock);
        i = std::max(end, i + 1);
    }
}

/// Carries out writes in one transaction. A failure's place has for its line the number of the write, from 1.
std::optional<BatchFailure> WriteQueue::commit(const Writes& writes, size_t begin, size_t end)
{
    try {
        Batch batch;
        const Target* pTarget = nullptr;
        for (size_t i = begin; i < end; ++i) {
            const Write& write = writes[i];
            const Place place{i - begin + 1, 0};
            if (!write.name || write.pTarget.get() != pTarget)
                batch.key(write.pTarget->path(), place);
            pTarget = write.pTarget.get();
            if (write.value)
                batch.set(*write.name, *write.value, place);
            else if (write.name)
                batch.removeValue(std::string(*write.name), place);
        }
        batch.commit();
        return std::nullopt;
    } catch (const BatchFailure& failure) {
        return failure;
    } catch (const std::exception& caught) {
        return BatchFailure({ExitFailed, caught.what()}, {}, true);
    }
}

/// Carries out the writes from `begin` on in one transaction, or as many as that may be. Returns the first of those
/// that are left: `begin` when that has to be written by itself.
size_t WriteQueue::carryOutAsOne(const Writes& writes, size_t begin, Lock& lock)
{
    for (size_t end = writes.size(); !m_apart && end - begin > 1;) {
        lock.unlock();
        const std::optional<BatchFailure> failure = commit(writes, begin, end);
        lock.lock();
        if (!failure || (failure->exit == ExitNoDaemon && !failure->asOne)) { // all are done, or of none it is known
            for (size_t i = begin; i < end; ++i)
                note(writes[i].number, {writes[i].line, failure});
            return end;
        }
        m_apart = m_apart || failure->asOne;
        const auto refused = static_cast<size_t>(failure->place.line);
        end = refused != 0 ? begin + refused - 1 : begin;
    }
    return begin;
}

void WriteQueue::carryOutSingle(const Write& write, Lock& lock)
{
    lock.unlock();
    Outcome outcome = outcomeOf(write);
    lock.lock();
    note(write.number, std::move(outcome));
}

/// Carries the write out.
WriteQueue::Outcome WriteQueue::outcomeOf(const Write& write)
{
    Outcome outcome{write.line, {}};
    try {
        run(write);
    } catch (const Failure& caught) {
        outcome.failure = caught;
    } catch (const std::exception& caught) {
        outcome.failure.emplace(ExitFailed, caught.what());
    }
    return outcome;
}

void WriteQueue::note(uint64_t number, Outcome&& outcome)
{
    if (!outcome.failure)
        ++m_done;
    else if ((!m_goesOn || outcome.failure->exit == ExitNoDaemon) && !isBehindStop(number))
        m_stop = number;
    m_outcomes.emplace(number, std::move(outcome));
    auto at = m_outcomes.begin();
    for (; at != m_outcomes.end() && at->first == m_settled && m_settled != m_stop; ++m_settled) {
        if (at->second.failure)
            m_refused.emplace_back(*at->second.failure, at->second.line);
        m_lastLine = at->second.line;
        at = m_outcomes.erase(at);
    }
}

void WriteQueue::run(const Write& write)
{
    const KeyPath& path = write.pTarget->path();
    const obreg::Key& key = write.pTarget->key();
    if (!write.name)
        return;
    std::error_code error;
    if (write.value)
        key.set(*write.name, *write.value, error);
    else
        key.removeValue(*write.name, error);
    if (write.value || error != obreg::Status::notFound)
        check(error, path, &*write.name, write.value ? write.value->data.size() : 0);
}

} // namespace obregtool
