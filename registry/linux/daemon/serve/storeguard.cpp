#include "daemon/serve/storeguard.h"

#include "obreg/roots.h"

namespace obregd {

namespace {

constexpr uint64_t PageSize = 4096;
constexpr uint64_t PagesOfOne = 4;             // that a small write changes, about
constexpr uint64_t Step = uint64_t{64} * 1024; // the disk is asked for so much at a time

} // namespace

void StoreGuard::look()
{
    m_kept = m_identity.isKept();
    m_wanted = 0;
    m_granted = 0;
}

REGSTATUS StoreGuard::judge(const Job& job)
{
    if (!m_kept)
        return OBREG_STATUS_STORE_FAILED;
    if (job.pOperation->frees)
        return OBREG_STATUS_SUCCESS;
    const uint64_t wanted = m_wanted + job.cost() + PagesOfOne * PageSize;
    if (wanted > m_granted) {
        const uint64_t toGrant = (wanted + Step - 1) / Step * Step;
        const uint64_t inLog = static_cast<uint64_t>(m_store.logPages()) * PageSize;
        if (!m_space.mayGrow({toGrant, inLog, m_store.freePages() * PageSize}))
            return OBREG_STATUS_STORE_FULL;
        m_granted = toGrant;
    }
    m_wanted = wanted;
    return OBREG_STATUS_SUCCESS;
}

bool StoreGuard::makeRoom()
{
    m_granted = 0;
    return m_space.release();
}

} // namespace obregd
