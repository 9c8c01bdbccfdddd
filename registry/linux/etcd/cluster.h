// The members of etcd as one sees them from here: which one is in use, which is next, the token to come with, and who
// is still at work when all ends.
//
// Shared by the engine, its threads and its watches. Any thread may call. `m_mutex` guards all that is not const;
// `m_changed` is told of an end, a wish to log in, and whoever was waited for.
#ifndef OBREGD_ETCD_CLUSTER_H
#define OBREGD_ETCD_CLUSTER_H

#include "daemon/engine/engine.h"
#include "etcd/connection.h"
#include "etcd/verdict.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <vector>

namespace obregd::etcd {

class Cluster {
public:
    /// Throws std::runtime_error when the options make no sense or a file cannot be read.
    explicit Cluster(const engine::Options& given);

    std::shared_ptr<Connection> inUse();
    std::vector<std::shared_ptr<Connection>> all();
    /// The next member is in use, unless that is so already.
    void leave(const Connection& connection);
    /// Its calls end, and a new connection takes its place.
    void replace(const Connection& connection, const std::string& why);

    /// How long to wait before a call is tried again: not while there are members that were not asked.
    std::chrono::milliseconds pauseAfter(size_t attempts) const;
    /// Waits, unless all ends or `sooner` is set, which wake() is told of. False: all ends.
    bool pause(std::chrono::milliseconds time, const std::atomic<bool>* sooner = nullptr);
    void wake();

    /// Calls, on one member after another, until there is an answer, a refusal, or the deadline is past. For what may
    /// be done twice.
    Verdict ask(Clock::time_point deadline, grpc::Status& status, const std::function<grpc::Status(Call&)>& how);

    std::string token();
    /// A token is not taken: another one is fetched, soon. Tells why there is none, if etcd has refused it.
    std::string renew(const std::string& token);
    const std::atomic<bool>& isTokenWanted() const { return m_isTokenWanted; }
    void setToken(const std::string& token, const std::string& whyNone);

    /// All calls end, later ones too.
    void stop();
    /// Waits for those who work.
    void wait();

    /// While it exists, wait() waits.
    class Work {
    public:
        explicit Work(Cluster& cluster);
        ~Work();
        Work(const Work&) = delete;
        Work& operator=(const Work&) = delete;

    private:
        Cluster& m_cluster;
    };

    const engine::Options options;

private:
    std::shared_ptr<Connection> connect(const std::string& endpoint) const;

    const std::shared_ptr<grpc::ChannelCredentials> m_secure; ///< null if no endpoint wants it
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::shared_ptr<Connection>> m_members;
    size_t m_inUse = 0;
    size_t m_working = 0;
    std::string m_token;
    std::string m_whyNoToken;
    std::atomic<bool> m_isTokenWanted;
    bool m_isStopping = false;
};

} // namespace obregd::etcd

#endif
