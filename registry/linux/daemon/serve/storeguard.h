// Refuses writes that the place where the store is cannot take: a disk that has hardly any room left, and files that
// are no longer where they were, so that whatever is written to them is lost.
//
// Belongs to the thread that commits.
#ifndef OBREG_DAEMON_SERVE_STOREGUARD_H
#define OBREG_DAEMON_SERVE_STOREGUARD_H

#include "daemon/files.h"
#include "daemon/serve/transactions.h"
#include "daemon/store/diskspace.h"
#include "daemon/store/quickcheck.h"

namespace obregd {

class StoreGuard final : public WriteGuard {
public:
    /// All of them outlive it.
    StoreGuard(WritableStore& store, StoreIdentity& identity, DiskSpace& space, QuickCheck& check)
        : m_store(store), m_identity(identity), m_space(space), m_check(check)
    {}

    bool look(const Job& first) override;
    REGSTATUS judge(const Job& job, bool frees) override;
    bool tidy() override;
    void giveReserve() override;

private:
    bool grants(uint64_t bytes);

    WritableStore& m_store;
    StoreIdentity& m_identity;
    DiskSpace& m_space;
    QuickCheck& m_check;
    bool m_kept = true;
    // Bytes: in the log and not in the file; of the transaction, what it wants in the log and what it may have there.
    uint64_t m_inLog = 0;
    uint64_t m_wanted = 0;
    uint64_t m_granted = 0;
};

} // namespace obregd

#endif
