#include "etcd/upkeep.h"

#include <utility>

namespace obregd::etcd {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds Every(2000);        // is asked whether a member lives
constexpr milliseconds AnswerWithin(2000); // else it does not
constexpr milliseconds LogInEvery(500);    // at most: checking a password is a member's hardest work

} // namespace

Upkeep::Upkeep(std::shared_ptr<Cluster> cluster) : m_cluster(std::move(cluster)), m_thread(&Upkeep::serve, this) {}

Upkeep::~Upkeep() { m_thread.join(); }

void Upkeep::serve()
{
    while (m_cluster->pause(Every, &m_cluster->isTokenWanted())) {
        if (m_cluster->isTokenWanted())
            logIn();
        for (const auto& connection : m_cluster->all())
            lookAfter(connection);
    }
}

void Upkeep::logIn()
{
    Call call(m_cluster->inUse(), "");
    call.context.set_deadline(Clock::now() + AnswerWithin);
    etcdserverpb::AuthenticateRequest request;
    request.set_name(m_cluster->options.user);
    request.set_password(m_cluster->options.password);
    etcdserverpb::AuthenticateResponse response;
    const grpc::Status status = call.connection->auth->Authenticate(&call.context, request, &response);
    const Verdict verdict = judge(call, status);
    if (verdict.means == Verdict::Means::Answered)
        m_cluster->setToken(response.token(), "");
    else if (status.error_message() == "etcdserver: authentication is not enabled")
        m_cluster->setToken("", "");
    else if (verdict.means == Verdict::Means::Refused)
        m_cluster->setToken("", verdict.why + " (the user is " + m_cluster->options.user + ")");
    else
        m_cluster->leave(*call.connection);
    if (verdict.means != Verdict::Means::Answered)
        m_cluster->pause(LogInEvery);
}

void Upkeep::lookAfter(const std::shared_ptr<Connection>& connection)
{
    if (!connection->hasCalls())
        return;
    Call call(connection, "");
    call.context.set_deadline(Clock::now() + AnswerWithin);
    etcdserverpb::StatusResponse response;
    const grpc::Status status = connection->maintenance->Status(&call.context, {}, &response);
    if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED)
        m_cluster->replace(*connection, "the member does not answer any more");
}

} // namespace obregd::etcd
