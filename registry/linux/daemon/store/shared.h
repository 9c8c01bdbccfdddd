// What the Stores of this process on one file share.
//
// Each holds it as long as it lives; the first one makes it. Any thread.
#ifndef OBREG_DAEMON_STORE_SHARED_H
#define OBREG_DAEMON_STORE_SHARED_H

#include <atomic>
#include <memory>
#include <string>

#include "daemon/store/positions.h"

namespace obregd {

/// Something that comes and goes with commits and that only readers in a state where it is there must mind. `coming` is
/// said before the commit that brings it, `gone` after the one that takes it away.
class Coming {
public:
    uint64_t seen() const { return m_times.load(); }
    /// Whether it may be there in a state that began after `seen` was taken.
    bool mayBeThere(uint64_t seen) const { return seen % 2 != 0 || m_times.load() != seen; }

    void coming()
    {
        if (m_times.load() % 2 == 0)
            ++m_times;
    }
    void gone()
    {
        if (m_times.load() % 2 != 0)
            ++m_times;
    }

private:
    std::atomic<uint64_t> m_times = 0; // odd while it may be there; only the writer changes it
};

struct Shared {
    Positions positions;
    Coming leftovers; ///< values whose key is deleted
    std::atomic<uint64_t> commitsBegun = 0;
    std::atomic<uint64_t> commitsOver = 0;
};

/// The one of the file at this path, which the caller has open.
std::shared_ptr<Shared> sharedOf(const std::string& path);

} // namespace obregd

#endif
