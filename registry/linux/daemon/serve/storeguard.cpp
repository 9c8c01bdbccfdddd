#include "daemon/serve/storeguard.h"

#include "obreg/roots.h"

namespace obregd {

namespace {

constexpr uint64_t PagesOfOne = 3;              // that a small write, or statement, changes when it comes with others
constexpr uint64_t Least = uint64_t{64} * 1024; // what the first one may take

uint64_t toWrite(const Job& job)
{
    const size_t statements = job.pPlan == nullptr ? 0 : job.pPlan->steps.size();
    return job.cost() + (statements + 1) * PagesOfOne * StorePageSize;
}

} // namespace

bool StoreGuard::look(const Job& first)
{
    m_kept = m_identity.isKept();
    m_store.journal().keepData(!m_space.isShort());
    m_store.overwriteSecrets(true);
    m_wanted = Least;
    m_granted = 0;
    m_inLog = static_cast<uint64_t>(m_store.logPages()) * StorePageSize;
    return !m_kept || first.frees() || grants(m_wanted + toWrite(first)) || m_inLog == 0;
}

REGSTATUS StoreGuard::judge(const Job& job, bool frees)
{
    if (!m_kept)
        return OBREG_STATUS_STORE_FAILED;
    if (frees)
        return OBREG_STATUS_SUCCESS;
    if (!grants(m_wanted + toWrite(job)))
        return OBREG_STATUS_STORE_FULL;
    m_wanted += toWrite(job);
    return OBREG_STATUS_SUCCESS;
}

bool StoreGuard::grants(uint64_t bytes)
{
    if (bytes > m_granted)
        m_granted = m_space.grant({bytes, m_inLog, m_store.freePages() * StorePageSize});
    return bytes <= m_granted;
}

void StoreGuard::giveReserve()
{
    m_space.release();
    m_store.journal().keepData(false);
    m_store.overwriteSecrets(false); // that would write to the log all that is deleted
    m_granted = 0;
}

/// What the log holds is moved now, so that it needs no room for that later.
bool StoreGuard::tidy()
{
    m_check.stop(); // it keeps the log from beginning anew
    const bool restarted = m_store.restartLog();
    m_inLog = restarted ? 0 : static_cast<uint64_t>(m_store.finishTidying()) * StorePageSize;
    return restarted;
}

} // namespace obregd
