#include "daemon/serve/committer.h"

#include <new>
#include <optional>

#include "daemon/log.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

/// Runs the jobs in one transaction. When that fails nothing of it stays, and the status says why.
std::optional<REGSTATUS> runTogether(WritableStore& store, std::span<WriteJob> jobs, bool log)
{
    const auto fail = [&](REGSTATUS status, const char* pReason) {
        store.rollback();
        if (log)
            logLine(LOG_ERR, "the store failed in a transaction (writes: %zu): %s; what cannot be done is refused",
                    jobs.size(), pReason);
        return status;
    };
    try {
        store.begin();
        for (WriteJob& job : jobs)
            job.reply = job.pOperation->serve({store, &store, job.peer}, job.request.text());
        store.commit();
        count(Figure::Commits);
        count(Figure::Writes, static_cast<int64_t>(jobs.size()));
        return std::nullopt;
    } catch (const SQLite::Exception& failure) {
        return fail(statusOf(failure), failure.what());
    } catch (const std::bad_alloc&) {
        return fail(OBREG_STATUS_STORE_FAILED, "out of memory");
    }
}

/// Finds the jobs that cannot be done, by halves, and does the others.
void runApart(WritableStore& store, std::span<WriteJob> jobs, REGSTATUS failure)
{
    if (jobs.size() == 1) {
        jobs[0].reply = jobs[0].pOperation->refuse(failure);
        return;
    }
    const size_t half = jobs.size() / 2;
    for (const std::span<WriteJob> part : {jobs.first(half), jobs.subspan(half)})
        if (const auto again = runTogether(store, part, false))
            runApart(store, part, *again);
}

} // namespace

Committer::Committer(WritableStore& store, Callbacks callbacks)
    : m_store(store), m_callbacks(std::move(callbacks)), m_thread([this] { work(); })
{}

Committer::~Committer()
{
    finish();
    m_thread.join();
}

void Committer::submit(WriteJob&& job)
{
    {
        const std::lock_guard lock(m_mutex);
        m_waiting.push_back(std::move(job));
    }
    m_wakeUp.notify_one(); // now that it can take the lock
}

void Committer::finish()
{
    const std::lock_guard lock(m_mutex);
    m_finishing = true;
    m_wakeUp.notify_one();
}

void Committer::run(WritableStore& store, std::span<WriteJob> jobs)
{
    if (const auto failure = runTogether(store, jobs, true)) {
        count(Figure::FailedTransactions);
        runApart(store, jobs, *failure);
    }
}

void Committer::work()
{
    for (;;) {
        Batch batch;
        {
            std::unique_lock lock(m_mutex);
            m_wakeUp.wait(lock, [this] { return m_finishing || !m_waiting.empty(); });
            batch.swap(m_waiting);
        }
        if (batch.empty())
            break;
        run(m_store, batch);
        m_callbacks.answered(std::move(batch));
        if (m_store.logIsLong()) {
            m_callbacks.tidying(true);
            m_store.tidy();
            m_callbacks.tidying(false);
        }
    }
    m_callbacks.ended();
}

} // namespace obregd
