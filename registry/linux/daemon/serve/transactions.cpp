#include "daemon/serve/transactions.h"

#include <new>
#include <thread>

#include "daemon/carryout.h"
#include "obreg/roots.h"
#include "obreg/status.hpp"

namespace obregd {

namespace {

// How long readers have to give up their states when the log needs their room.
constexpr int RoomTries = 20;
constexpr auto RoomPause = std::chrono::milliseconds(5);
constexpr size_t StatementWork = 512; // bytes that take as long to write as a statement to carry out, about

template <class Action>
void forEach(const JobList& jobs, Action action)
{
    for (Job* pJob = jobs.first(); pJob != nullptr; pJob = pJob->pNext.get())
        action(*pJob);
}

} // namespace

JobList Transactions::run(const std::function<JobPtr()>& next)
{
    JobList jobs;
    JobPtr pJob = next();
    try {
        if (m_pGuard != nullptr && pJob != nullptr && !m_pGuard->look(*pJob))
            makeRoom();
    } catch (const std::exception&) { // judge() meets it again, in the transaction
    }
    const auto serveAll = [&] {
        for (; pJob != nullptr; pJob = next()) {
            Job& job = *pJob;
            jobs.append(std::move(pJob));
            serve(job);
        }
    };
    const auto failure = transact(std::ref(serveAll));
    if (pJob != nullptr) // the transaction could not even begin
        jobs.append(std::move(pJob));
    if (!failure) {
        count(Figure::Writes, static_cast<int64_t>(jobs.size()));
        return jobs;
    }
    count(Figure::FailedTransactions);
    if (failure->status != OBREG_STATUS_STORE_FULL || m_pGuard == nullptr) {
        runAgain(jobs, *failure);
        return jobs;
    }
    try {
        m_pGuard->giveReserve();
        makeRoom();
    } catch (const std::exception&) { // then there is no more room, which the jobs will find
    }
    runPart(jobs);
    return jobs;
}

bool Transactions::runOne(const std::function<void()>& action)
{
    auto failure = transact(action);
    if (failure && failure->status == OBREG_STATUS_STORE_FULL) {
        m_store.overwriteSecrets(false);
        failure = transact(action);
    }
    return !failure;
}

std::optional<Transactions::Failure> Transactions::transact(const std::function<void()>& action)
{
    const auto fail = [&](REGSTATUS status, bool atOnce, const char* pReason) {
        m_store.rollback();
        if (const auto leftOut = m_log.allow(std::chrono::steady_clock::now()))
            logLine(LOG_ERR,
                    "the store failed in a transaction: %s; what cannot be done is refused (%zu such lines were left "
                    "out)",
                    pReason, *leftOut);
        return Failure{status, atOnce};
    };
    try {
        m_store.begin();
        action();
        m_store.commit();
        count(Figure::Commits);
        return std::nullopt;
    } catch (const SQLite::Exception& failure) {
        return fail(statusOf(failure), isBusy(failure), failure.what());
    } catch (const std::bad_alloc&) {
        return fail(OBREG_STATUS_STORE_FAILED, false, "out of memory");
    } catch (const std::exception& failure) {
        return fail(OBREG_STATUS_STORE_FAILED, false, failure.what());
    }
}

/// Lets the log begin anew, for which readers must give up their states: they do soon when they are asked to, but one
/// from outside may not.
void Transactions::makeRoom()
{
    const struct Tidying {
        explicit Tidying(const std::function<void(bool)>& tell) : m_tell(tell)
        {
            if (m_tell)
                m_tell(true);
        }
        ~Tidying()
        {
            if (m_tell)
                m_tell(false);
        }
        const std::function<void(bool)>& m_tell;
    } asked(m_tidying);
    for (int i = 0; !m_pGuard->tidy() && i < RoomTries; ++i)
        std::this_thread::sleep_for(RoomPause);
}

/// Runs jobs again in a transaction, and those of them that fail by halves.
void Transactions::runPart(JobList& jobs)
{
    const auto serveAll = [&] { forEach(jobs, [this](Job& job) { serve(job); }); };
    if (const auto failure = transact(std::ref(serveAll)))
        runAgain(jobs, *failure);
    else
        count(Figure::Writes, static_cast<int64_t>(jobs.size()));
}

void Transactions::runAgain(JobList& jobs, const Failure& failure)
{
    if (jobs.size() == 1 || failure.atOnce)
        return forEach(jobs, [&](Job& job) { refuse(job, failure.status); });
    JobList first = jobs.split(jobs.size() / 2);
    JobList second = jobs.split(jobs.size());
    for (JobList* const pHalf : {&first, &second}) {
        runPart(*pHalf);
        jobs.append(std::move(*pHalf));
    }
}

void Transactions::serve(Job& job)
{
    const REGSTATUS refusal = judge(job, job.frees());
    m_store.journal().setAuthor({job.peer.uid, job.peer.pid});
    if (refusal != OBREG_STATUS_SUCCESS)
        refuse(job, refusal);
    else if (m_pShared == nullptr)
        act(job, nullptr);
    else
        m_pShared->serve(job, [&](SharedCalls& calls) { act(job, &calls); });
}

void Transactions::act(Job& job, SharedCalls* pCalls)
{
    if (job.pPlan != nullptr)
        return carryOut(job, pCalls);
    Session session{m_store, &m_store, job.peer};
    session.pShared = pCalls;
    job.reply = job.pOperation->serve(session, job.request.text());
}

void Transactions::carryOut(Job& job, SharedCalls* pCalls)
{
    const auto mayAdd = [&] { return judge(job, false) == OBREG_STATUS_SUCCESS; };
    Session session{m_store, &m_store, job.peer};
    session.pShared = pCalls;
    const Done done = obregd::carryOut(session, *job.pPlan, mayAdd);
    job.reply = job.pOperation->refuse(done.status);
    job.extraWork = done.steps * StatementWork;
}

/// A transaction's refusal is remembered.
void Transactions::refuse(Job& job, REGSTATUS status)
{
    obregd::refuse(job, status);
    job.pShared.reset();
    if (job.pPlan == nullptr)
        return;
    try {
        const obreg::StatusText* const pText = obreg::statusText(status);
        rememberRefusal(job.peer.uid, job.pPlan->token, {status, {}, pText == nullptr ? "" : pText->sentence});
    } catch (const std::bad_alloc&) { // the status is all there is to know
    }
}

} // namespace obregd
