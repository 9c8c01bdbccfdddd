// A thread that looks after the connections: it logs in when a token is wanted, and asks each member on which calls
// wait whether it lives. One that is stopped or cut off gets a new connection, and the calls on the old one end.
//
// gRPC's own pings are no way to do so: a member takes more than one in five seconds, its default, for an attack.
#ifndef OBREGD_ETCD_UPKEEP_H
#define OBREGD_ETCD_UPKEEP_H

#include "etcd/cluster.h"

#include <thread>

namespace obregd::etcd {

/// Owned by the engine. Cluster::stop() ends it.
class Upkeep {
public:
    explicit Upkeep(std::shared_ptr<Cluster> cluster);
    ~Upkeep();
    Upkeep(const Upkeep&) = delete;
    Upkeep& operator=(const Upkeep&) = delete;

private:
    void serve();
    void logIn();
    void lookAfter(const std::shared_ptr<Connection>& connection);

    const std::shared_ptr<Cluster> m_cluster;
    std::thread m_thread;
};

} // namespace obregd::etcd

#endif
