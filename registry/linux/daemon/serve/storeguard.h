// Refuses writes that the place where the store is cannot take: a disk that has hardly any room left, and files that
// are no longer where they were, so that whatever is written to them is lost.
//
// Belongs to the thread that commits.
#ifndef OBREG_DAEMON_SERVE_STOREGUARD_H
#define OBREG_DAEMON_SERVE_STOREGUARD_H

#include "daemon/files.h"
#include "daemon/serve/transactions.h"
#include "daemon/store/diskspace.h"

namespace obregd {

class StoreGuard final : public WriteGuard {
public:
    /// All of them outlive it.
    StoreGuard(WritableStore& store, StoreIdentity& identity, DiskSpace& space)
        : m_store(store), m_identity(identity), m_space(space)
    {}

    void look() override;
    REGSTATUS judge(const Job& job) override;
    bool makeRoom() override;

private:
    WritableStore& m_store;
    StoreIdentity& m_identity;
    DiskSpace& m_space;
    bool m_kept = true;
    // Of the transaction, in bytes of the log.
    uint64_t m_wanted = 0;
    uint64_t m_granted = 0;
};

} // namespace obregd

#endif
