// Transactions on their way to etcd, many at once: a thread of its own takes the answers from gRPC's queue and hands
// them on, in whatever order they come.
//
// Owned by the engine, and ended after Cluster::stop(). Any thread may call start(). `m_mutex` guards the set of those
// that pause.
#ifndef OBREGD_ETCD_COMMITS_H
#define OBREGD_ETCD_COMMITS_H

#include "etcd/cluster.h"

#include <thread>
#include <unordered_set>

namespace obregd::etcd {

class Commits {
public:
    explicit Commits(std::shared_ptr<Cluster> cluster);
    ~Commits();
    Commits(const Commits&) = delete;
    Commits& operator=(const Commits&) = delete;

    void start(engine::Transaction&& transaction, std::chrono::milliseconds patience,
               std::function<void(engine::Outcome&&)>&& done);
    /// Those that pause go on at once. To be called while the cluster stops.
    void hurry();

private:
    class Commit;
    void serve();

    const std::shared_ptr<Cluster> m_cluster;
    grpc::CompletionQueue m_queue;
    std::mutex m_mutex;
    std::unordered_set<Commit*> m_pausing;
    bool m_isHurrying = false;
    std::thread m_thread;
};

} // namespace obregd::etcd

#endif
