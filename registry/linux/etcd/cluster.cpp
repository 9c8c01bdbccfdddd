#include "etcd/cluster.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace obregd::etcd {

namespace {

using std::chrono::milliseconds;

std::string contentOf(const std::string& file)
{
    if (file.empty())
        return {};
    std::ifstream stream(file, std::ios::binary);
    std::string content(std::istreambuf_iterator<char>(stream), {});
    if (!stream || content.empty())
        throw std::runtime_error(file + " cannot be read, or is empty: it is to hold a certificate or key, in PEM");
    return content;
}

std::shared_ptr<grpc::ChannelCredentials> readCredentials(const engine::Options& options)
{
    if (options.certificate.empty() != options.key.empty())
        throw std::runtime_error("a certificate needs its key, and a key its certificate: give both or none");
    return grpc::SslCredentials({contentOf(options.authority), contentOf(options.key), contentOf(options.certificate)});
}

bool isSecure(const std::string& endpoint) { return endpoint.rfind("https://", 0) == 0; }

} // namespace

Cluster::Cluster(const engine::Options& given)
    : options(given),
      m_secure(std::any_of(given.endpoints.begin(), given.endpoints.end(), isSecure) ? readCredentials(given)
                                                                                     : nullptr),
      m_isTokenWanted(!given.user.empty())
{
    if (options.endpoints.empty())
        throw std::runtime_error("no endpoint of etcd is given");
    for (const std::string& endpoint : options.endpoints) {
        if (!isSecure(endpoint) && endpoint.rfind("http://", 0) != 0)
            throw std::runtime_error(endpoint + " is no endpoint of etcd: write https://HOST:PORT or http://HOST:PORT");
        m_members.push_back(connect(endpoint));
    }
}

std::shared_ptr<Connection> Cluster::connect(const std::string& endpoint) const
{
    return std::make_shared<Connection>(endpoint, isSecure(endpoint) ? m_secure : grpc::InsecureChannelCredentials());
}

std::shared_ptr<Connection> Cluster::inUse()
{
    const std::lock_guard lock(m_mutex);
    return m_members[m_inUse];
}

std::vector<std::shared_ptr<Connection>> Cluster::all()
{
    const std::lock_guard lock(m_mutex);
    return m_members;
}

void Cluster::leave(const Connection& connection)
{
    const std::lock_guard lock(m_mutex);
    if (m_members[m_inUse].get() == &connection)
        m_inUse = (m_inUse + 1) % m_members.size();
}

void Cluster::replace(const Connection& connection, const std::string& why)
{
    std::shared_ptr<Connection> old;
    {
        const std::lock_guard lock(m_mutex);
        const auto place = std::find_if(m_members.begin(), m_members.end(),
                                        [&](const auto& member) { return member.get() == &connection; });
        if (place == m_members.end() || m_isStopping)
            return;
        old = std::exchange(*place, connect(connection.endpoint));
        if (place - m_members.begin() == static_cast<std::ptrdiff_t>(m_inUse))
            m_inUse = (m_inUse + 1) % m_members.size();
    }
    old->close(why);
}

milliseconds Cluster::pauseAfter(size_t attempts) const
{
    const size_t rounds = attempts / options.endpoints.size();
    if (attempts % options.endpoints.size() != 0)
        return milliseconds(0);
    return std::min(milliseconds(1000), milliseconds(10) * (1 << std::min<size_t>(rounds, 7)));
}

bool Cluster::pause(milliseconds time, const std::atomic<bool>* sooner)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, time, [&] { return m_isStopping || (sooner && *sooner); });
    return !m_isStopping;
}

void Cluster::wake()
{
    const std::lock_guard lock(m_mutex);
    m_changed.notify_all();
}

Verdict Cluster::ask(Clock::time_point deadline, grpc::Status& status, const std::function<grpc::Status(Call&)>& how)
{
    for (size_t attempts = 1;; ++attempts) {
        Call call(inUse(), token());
        call.context.set_deadline(deadline);
        status = how(call);
        Verdict verdict = judge(call, status);
        if (verdict.means == Verdict::Means::Answered || verdict.means == Verdict::Means::Refused)
            return verdict;
        if (verdict.means == Verdict::Means::LogIn) {
            const std::string refusal = renew(call.token);
            if (!refusal.empty())
                return {Verdict::Means::Refused, refusal};
            attempts += options.endpoints.size() - 1;
        } else {
            leave(*call.connection);
        }
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
        if (left <= milliseconds(0) || !pause(std::min(left, pauseAfter(attempts))))
            return verdict;
    }
}

std::string Cluster::token()
{
    const std::lock_guard lock(m_mutex);
    return m_token;
}

std::string Cluster::renew(const std::string& token)
{
    if (options.user.empty())
        return "etcd wants to know who asks, and no user was given";
    const std::lock_guard lock(m_mutex);
    if (token == m_token) {
        m_isTokenWanted = true;
        m_changed.notify_all();
    }
    return m_whyNoToken;
}

void Cluster::setToken(const std::string& token, const std::string& whyNone)
{
    const std::lock_guard lock(m_mutex);
    m_isTokenWanted = false;
    m_token = token;
    m_whyNoToken = whyNone;
}

void Cluster::stop()
{
    const std::lock_guard lock(m_mutex);
    m_isStopping = true;
    m_changed.notify_all();
    for (const auto& member : m_members)
        member->close("the engine is closed");
}

void Cluster::wait()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_working == 0; });
}

Cluster::Work::Work(Cluster& cluster) : m_cluster(cluster)
{
    const std::lock_guard lock(m_cluster.m_mutex);
    ++m_cluster.m_working;
}

Cluster::Work::~Work()
{
    const std::lock_guard lock(m_cluster.m_mutex);
    if (--m_cluster.m_working == 0)
        m_cluster.m_changed.notify_all();
}

} // namespace obregd::etcd
