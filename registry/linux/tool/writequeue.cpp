#include "writequeue.h"

#include <functional>

#include "parallel.h"
#include "text.h"

namespace obregtool {

namespace {

constexpr size_t MaxQueued = 1024;
constexpr size_t MaxQueuedBytes = 16u << 20;
constexpr size_t MaxUnsettled = 16384;

} // namespace

const obreg::Key& Target::key()
{
    const std::lock_guard lock(m_mutex);
    if (!m_key) {
        std::error_code error;
        m_key = m_path.create(nullptr, error);
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
        return m_failure || m_unfinished == 0 || (m_unfinished < MaxQueued && m_size + size <= MaxQueuedBytes);
    });
    throwFailure();
    m_size += size;
    ++m_unfinished;
    if (write.name)
        m_writes.push_back(std::move(write));
    else // first, so that its values do not wait for it
        m_writes.push_front(std::move(write));
    if (m_writes.size() > m_idle && m_threads.size() < RequestThreads) {
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

void WriteQueue::wait()
{
    settle();
    const std::lock_guard lock(m_mutex);
    throwFailure();
}

uint64_t WriteQueue::done() const
{
    const std::lock_guard lock(m_mutex);
    return m_done;
}

void WriteQueue::throwFailure() const
{
    if (m_failure)
        throw WriteFailure(*m_failure);
}

void WriteQueue::work()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        ++m_idle;
        m_more.wait(lock, [this] { return m_ending || !m_writes.empty(); });
        --m_idle;
        if (m_writes.empty())
            return;
        Write write = std::move(m_writes.front());
        m_writes.pop_front();
        std::optional<WriteFailure> failure;
        if (!m_failure) {
            lock.unlock();
            try {
                run(write);
            } catch (const Failure& caught) {
                failure.emplace(caught, write.line);
            } catch (const std::exception& caught) {
                failure.emplace(Failure(ExitFailed, caught.what()), write.line);
            }
            write.pTarget.reset(); // may close the key
            lock.lock();
            m_done += failure ? 0 : 1;
        }
        if (failure && (!m_failure || failure->line < m_failure->line))
            m_failure.emplace(*failure);
        m_size -= write.size();
        --m_unfinished;
        m_less.notify_one();
    }
}

void WriteQueue::run(Write& write)
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
