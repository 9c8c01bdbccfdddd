#include "daemon/serve/committer.h"

#include <climits>

namespace obregd {

namespace {

// Where a batch ends.
constexpr auto BatchTime = std::chrono::milliseconds(10);
constexpr size_t BatchBytes = size_t{4} * 1024 * 1024;
constexpr size_t BytesOfOne = 8192; // what a small write adds to the log, about

/// Whoever has a write done that takes so much longer than the disk takes for any leaves it to the others for ten times
/// as long.
constexpr auto Long = std::chrono::milliseconds(20);
constexpr int PauseFactor = 10;
constexpr JobQueue::Clock::duration LongestPause = std::chrono::seconds(1);
constexpr int BatchesLookedAt = 32; // for the time that the disk takes for any

constexpr auto LastPause = std::chrono::milliseconds(5);

// Values of deleted keys that are cleared in one transaction: when nobody waits, and after each batch.
constexpr int ManyRows = 2000;
constexpr int FewRows = 200;

} // namespace

Committer::Committer(WritableStore& store, WriteGuard* pGuard, SharedTrees* pShared, JobQueue& queue,
                     Callbacks callbacks)
    : m_store(store), m_pShared(pShared), m_queue(queue), m_callbacks(std::move(callbacks)),
      m_transactions(store, pGuard, m_callbacks.tidying, pShared), m_tidier(store.path(), store, m_callbacks.tidying),
      m_thread([this] { work(); })
{}

Committer::~Committer()
{
    m_queue.finish();
    m_thread.join();
}

void Committer::work()
{
    if (m_pShared != nullptr)
        m_pShared->start([this] { m_queue.wake(); });
    for (;;) {
        while (m_queue.isIdle() && clear(ManyRows)) {
        }
        JobPtr pFirst = m_queue.pop(INT_MAX);
        turn();
        if (pFirst == nullptr && m_queue.isFinished() && (m_pShared == nullptr || m_pShared->isIdle()))
            break;
        if (pFirst == nullptr && m_queue.isFinished())
            std::this_thread::sleep_for(LastPause); // for those who still wait
        if (pFirst == nullptr)
            continue;
        JobList batch = runBatch(std::move(pFirst));
        if (m_pShared != nullptr)
            m_pShared->send(batch);
        m_callbacks.answered(std::move(batch), m_store.journal().takeTouched());
        m_tidier.transactionOver();
        clear(FewRows);
    }
    if (m_pShared != nullptr)
        m_callbacks.answered(m_pShared->end(), {});
    m_callbacks.ended();
}

/// What is shared with other machines goes on.
void Committer::turn()
{
    if (m_pShared == nullptr)
        return;
    JobList answered = m_pShared->turn(m_transactions);
    std::vector<Touched> touched = m_store.journal().takeTouched();
    if (!answered.empty() || !touched.empty())
        m_callbacks.answered(std::move(answered), std::move(touched));
    m_tidier.transactionOver();
}

/// Clears some of what deleted keys have left behind; whether there is more, and it can be done.
bool Committer::clear(int rows)
{
    if (!m_store.hasToClear())
        return false;
    bool more = false;
    const auto clearSome = [&] { more = m_store.clearSome(rows); };
    const bool done = m_transactions.runOne(std::ref(clearSome));
    m_tidier.transactionOver();
    return done && more;
}

/// Runs a job and as many more as wait now. What comes later is left to the next batch: while this one is written to
/// the disk, the others' requests are read, and neither waits for the other.
JobList Committer::runBatch(JobPtr pFirst)
{
    const Clock::time_point begun = Clock::now();
    size_t bytes = 0;
    size_t more = m_queue.size();
    const auto next = [&] {
        JobPtr pJob = std::move(pFirst);
        if (pJob == nullptr && more != 0 && bytes < BatchBytes && Clock::now() - begun < BatchTime) {
            pJob = m_queue.tryPop(INT_MAX);
            --more;
        }
        if (pJob != nullptr)
            bytes += pJob->cost() + BytesOfOne;
        return pJob;
    };
    JobList batch = m_transactions.run(std::ref(next));
    done(batch, Clock::now() - begun);
    return batch;
}

/// Tells the queue. Others' writes come before the next long one of the same user.
void Committer::done(const JobList& batch, Clock::duration taken)
{
    const auto work = [](const Job& job) { return static_cast<double>(job.cost() + job.extraWork); };
    double all = 0;
    for (const Job* pJob = batch.first(); pJob != nullptr; pJob = pJob->pNext.get())
        all += work(*pJob);
    m_leastNow = std::min(m_leastNow, taken);
    const Clock::duration least = std::min(m_leastBefore, m_leastNow);
    if (++m_batches % BatchesLookedAt == 0)
        m_leastBefore = std::exchange(m_leastNow, Clock::duration::max());
    for (const Job* pJob = batch.first(); pJob != nullptr; pJob = pJob->pNext.get()) {
        const auto own = std::chrono::duration_cast<Clock::duration>((taken - least) * (work(*pJob) / all));
        m_queue.done(*pJob, own >= Long ? std::min(own * PauseFactor, LongestPause) : Clock::duration::zero());
    }
}

} // namespace obregd
