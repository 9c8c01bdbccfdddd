#include "etcd/connection.h"

#include <utility>

namespace obregd::etcd {

namespace {

/// A member that is back is found soon, one that hangs while a connection is made is given up soon, and no call waits
/// for another channel's connection or goes through a proxy for web pages.
std::shared_ptr<grpc::Channel> makeChannel(const std::string& endpoint,
                                           const std::shared_ptr<grpc::ChannelCredentials>& credentials)
{
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
    arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
    arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 2000);
    arguments.SetInt(GRPC_ARG_DNS_MIN_TIME_BETWEEN_RESOLUTIONS_MS, 1000);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    return grpc::CreateCustomChannel(endpoint.substr(endpoint.find("://") + 3), credentials, arguments);
}

} // namespace

Connection::Connection(const std::string& at, const std::shared_ptr<grpc::ChannelCredentials>& credentials)
    : endpoint(at), channel(makeChannel(at, credentials)), kv(etcdserverpb::KV::NewStub(channel)),
      watch(etcdserverpb::Watch::NewStub(channel)), auth(etcdserverpb::Auth::NewStub(channel)),
      cluster(etcdserverpb::Cluster::NewStub(channel)), maintenance(etcdserverpb::Maintenance::NewStub(channel))
{}

void Connection::close(const std::string& why)
{
    const std::lock_guard lock(m_mutex);
    m_whyClosed = why;
    for (grpc::ClientContext* call : m_calls)
        call->TryCancel();
}

std::string Connection::whyClosed() const
{
    const std::lock_guard lock(m_mutex);
    return m_whyClosed;
}

bool Connection::hasCalls() const
{
    const std::lock_guard lock(m_mutex);
    return !m_calls.empty();
}

Call::Call(std::shared_ptr<Connection> on, std::string withToken)
    : connection(std::move(on)), token(std::move(withToken))
{
    if (!token.empty())
        context.AddMetadata("token", token);
    const std::lock_guard lock(connection->m_mutex);
    if (!connection->m_whyClosed.empty())
        context.TryCancel();
    connection->m_calls.insert(&context);
}

Call::~Call()
{
    const std::lock_guard lock(connection->m_mutex);
    connection->m_calls.erase(&context);
}

bool Call::mayHaveArrived() const
{
    // Until a connection is chosen, a call's peer is what the channel was made for, without a protocol's name.
    const std::string peer = context.peer();
    return peer.rfind("ipv", 0) == 0;
}

} // namespace obregd::etcd
