// Who makes up etcd and how each of them is, in lines for people.
#ifndef OBREGD_ETCD_MEMBERS_H
#define OBREGD_ETCD_MEMBERS_H

#include "etcd/cluster.h"

namespace obregd::etcd {

/// Asks every endpoint, at the same time.
std::string tellMembers(Cluster& cluster, Clock::time_point deadline);

} // namespace obregd::etcd

#endif
