// A watch: a thread that reads a stream of changes, and opens another one, at another member if need be, where the last
// has ended, until it is destroyed.
//
// Owned by whoever watches. The thread calls the watcher without a lock; while that takes its time, the stream is not
// read. `m_mutex` guards the call that is to be cancelled.
#ifndef OBREGD_ETCD_WATCHING_H
#define OBREGD_ETCD_WATCHING_H

#include "etcd/cluster.h"
#include "etcd/messages.h"

#include <optional>
#include <thread>

namespace obregd::etcd {

class Watching : public engine::Engine::Watch {
public:
    Watching(std::shared_ptr<Cluster> cluster, const std::string& from, const std::string& end, int64_t after,
             engine::Watcher& watcher);
    ~Watching() override;
    Watching(const Watching&) = delete;
    Watching& operator=(const Watching&) = delete;

private:
    enum class Next { GoOn, Elsewhere, Nothing };
    class Current;

    void serve();
    Next follow(Call& call);
    Next take(Call& call, etcdserverpb::WatchResponse&& response, std::string& why);
    void tell(bool isReached, const std::string& why);

    const std::shared_ptr<Cluster> m_cluster;
    etcdserverpb::WatchRequest m_request;
    engine::Watcher& m_watcher;
    Gathering m_gathering;
    std::optional<bool> m_isReached; ///< as the watcher knows it
    size_t m_attempts = 0;           ///< since it was reached
    std::atomic<bool> m_isEnding{false};
    std::mutex m_mutex;
    Call* m_call = nullptr;
    std::optional<Cluster::Work> m_work;
    std::thread m_thread;
};

} // namespace obregd::etcd

#endif
