// What a request that writes in a shared tree asks of the engine: it was carried out on the local copy, and undone
// again; what it did there is proposed, on the condition that what it rests on is still so.
//
// Made on the thread that writes, inside the transaction in which the request was carried out.
#ifndef OBREGD_ENGINE_PROPOSAL_H
#define OBREGD_ENGINE_PROPOSAL_H

#include "daemon/engine/copy.h"
#include "daemon/operations.h"

namespace obregd {

/// Proposed and not decided yet.
struct Proposal {
    size_t share; ///< the number of the shared tree
    engine::Transaction transaction;
};

/// Thrown by propose(): it cannot be proposed. The status for the client, and why.
struct CannotPropose {
    REGSTATUS status;
    const char* pWhy;
};

class Proposer {
public:
    /// All outlive it.
    Proposer(WritableStore& store, std::vector<std::unique_ptr<SharedCopy>>& shares) : m_store(store), m_shares(shares)
    {}

    /// The proposal of all changes after that one; nothing when none is in a shared tree. Throws CannotPropose.
    std::optional<Proposal> propose(int64_t after, const std::vector<SharedCalls::LookedAt>& lookedAt);

private:
    struct Place {
        size_t share;
        std::string path;
    };
    std::optional<Place> placeOf(KeyId key);

    WritableStore& m_store;
    std::vector<std::unique_ptr<SharedCopy>>& m_shares;
};

} // namespace obregd

#endif
