// A gRPC channel to one member of etcd, the services there, and the calls that are under way on it.
//
// Owned by Cluster while it is in use and by each Call on it. Any thread may call. `m_mutex` guards the calls and why
// it was closed.
#ifndef OBREGD_ETCD_CONNECTION_H
#define OBREGD_ETCD_CONNECTION_H

#include <etcd/etcdserver/etcdserverpb/rpc.grpc.pb.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

namespace obregd::etcd {

using Clock = std::chrono::system_clock; // what gRPC takes for a deadline

class Connection {
public:
    /// `at`: as an operator writes it, with "http://" or "https://".
    Connection(const std::string& at, const std::shared_ptr<grpc::ChannelCredentials>& credentials);

    const std::string endpoint;
    const std::shared_ptr<grpc::Channel> channel;
    const std::unique_ptr<etcdserverpb::KV::Stub> kv;
    const std::unique_ptr<etcdserverpb::Watch::Stub> watch;
    const std::unique_ptr<etcdserverpb::Auth::Stub> auth;
    const std::unique_ptr<etcdserverpb::Cluster::Stub> cluster;
    const std::unique_ptr<etcdserverpb::Maintenance::Stub> maintenance;

    /// The calls on it end as cancelled, later ones too.
    void close(const std::string& why);
    std::string whyClosed() const;
    bool hasCalls() const;

private:
    friend class Call;
    mutable std::mutex m_mutex;
    std::unordered_set<grpc::ClientContext*> m_calls;
    std::string m_whyClosed;
};

/// One call, from before it is sent until its end was seen. It can be cancelled from any thread.
class Call {
public:
    Call(std::shared_ptr<Connection> on, std::string withToken);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    const std::shared_ptr<Connection> connection;
    const std::string token; ///< what it was sent with
    grpc::ClientContext context;

    /// Whether a connection was found for it: if not, nobody has seen it. To be asked after its end.
    bool mayHaveArrived() const;
};

} // namespace obregd::etcd

#endif
