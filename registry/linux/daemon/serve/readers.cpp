#include "daemon/serve/readers.h"

#include <sys/resource.h>

#include "daemon/serve/connection.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

constexpr int Niceness = 5; // behind the thread that answers everybody

} // namespace

Readers::Readers(const std::string& storePath, JobQueue& queue, size_t maxStatements, Answered answered)
    : m_queue(queue), m_maxStatements(maxStatements), m_answered(std::move(answered))
{
    for (int i = 0; i < Threads; ++i)
        m_stores.push_back(std::make_unique<Store>(storePath));
    try {
        for (const auto& pStore : m_stores)
            m_threads.emplace_back([this, &store = *pStore] { work(store); });
    } catch (...) {
        end();
        throw;
    }
}

Readers::~Readers() { end(); }

void Readers::end()
{
    m_queue.finish();
    for (std::thread& thread : m_threads)
        thread.join();
}

void Readers::interrupt()
{
    for (const auto& pStore : m_stores)
        pStore->interrupt();
}

void Readers::read(Job& job, Store& store)
{
    const auto fail = [&](REGSTATUS status, const char* pReason, const char* pAdvice) {
        {
            const std::lock_guard lock(m_logMutex);
            if (const auto leftOut = m_log.allow(std::chrono::steady_clock::now()))
                logLine(LOG_ERR, "a read failed: %s%s (%zu such lines were left out)", pReason, pAdvice, *leftOut);
        }
        refuse(job, status);
    };
    try {
        job.reply = job.pOperation->serve({store, nullptr, job.peer, true, m_maxStatements}, job.request.text());
    } catch (const NeedsWriter&) {
        job.needsWriter = true;
    } catch (const Planned& planned) {
        job.pPlan = planned.pPlan;
        job.request = Payload();
        job.needsWriter = true;
    } catch (const MustWait& must) {
        job.wait = must.wait;
    } catch (const SQLite::Exception& failure) {
        fail(statusOf(failure), failure.what(), "; look at the store with obregd --check");
    } catch (const std::exception& failure) {
        fail(OBREG_STATUS_STORE_FAILED, failure.what(), "");
    }
}

void Readers::work(Store& store)
{
    setpriority(PRIO_PROCESS, 0, Niceness); // of this thread only; it is as well if that is refused
    while (JobPtr pJob = m_queue.pop(Threads - 1)) {
        if (pJob->pConnection->isOpen() || pJob->pOperation->writes)
            read(*pJob, store);
        m_queue.done(*pJob);
        m_answered(std::move(pJob));
    }
}

} // namespace obregd
