// What the end of a call means for what was asked: was it done, and who is to be asked next?
#ifndef OBREGD_ETCD_VERDICT_H
#define OBREGD_ETCD_VERDICT_H

#include "etcd/connection.h"

namespace obregd::etcd {

struct Verdict {
    enum class Means {
        Answered,
        Elsewhere, ///< nothing was done here: another member may do it, or this one in a while
        LogIn,     ///< nothing was done, for the token is not taken
        Refused,   ///< nothing was done, and nothing will be
        Lost,      ///< it may have been done, or may still be
    } means;
    std::string why{}; ///< with the member's name
};

Verdict judge(const Call& call, const grpc::Status& status);

} // namespace obregd::etcd

#endif
