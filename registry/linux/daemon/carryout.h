// Carries a plan out, whole or not at all: first its conditions, then its statements, each as the same request by
// itself would be done, with the same rights and by the same rules (handlers.h).
//
// The quota is looked at when all is done, so that what is deleted makes room for what is set, wherever it stands.
//
// In a transaction of a writable store, on that store's thread.
#ifndef OBREG_DAEMON_CARRYOUT_H
#define OBREG_DAEMON_CARRYOUT_H

#include <functional>

#include "daemon/operations.h"

namespace obregd {

struct Done {
    REGSTATUS status; ///< when it is none of success nothing was done; outcomes.h remembers why
    size_t steps;     ///< statements, and what sub-trees had
};

/// mayAdd: whether the store has room for what it adds; asked only when a plan that frees has added something.
Done carryOut(const Session& session, const Plan& plan, const std::function<bool()>& mayAdd);

/// Reads a transaction: a value that is to be set in its key. Throws Planned when it is to be carried out; else it is
/// refused, or done already.
REGSTATUS takeTransaction(const Session& session, const SetValueReqMsg& request);

/// What is known of a transaction of the peer's.
REGSTATUS queryTransaction(const Session& session, const std::string& token, std::string& text);

} // namespace obregd

#endif
