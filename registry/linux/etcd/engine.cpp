// The engine as the daemon sees it, and the one function that the module exports.
#include "daemon/engine/engine.h"

#include "etcd/commits.h"
#include "etcd/members.h"
#include "etcd/messages.h"
#include "etcd/upkeep.h"
#include "etcd/watching.h"

#include <exception>
#include <utility>

namespace obregd::etcd {

namespace {

using std::chrono::milliseconds;

/// etcd takes requests of 1.5 MiB; this is left for what is in a transaction beside its longest value.
constexpr size_t LongestRequest = 1536 * size_t{1024};
constexpr size_t LeftForTheRest = 64 * size_t{1024};
constexpr size_t MostOperations = 128;

class EtcdEngine : public engine::Engine {
public:
    explicit EtcdEngine(const engine::Options& options)
        : m_cluster(std::make_shared<Cluster>(options)), m_commits(m_cluster), m_upkeep(m_cluster)
    {}

    ~EtcdEngine() override
    {
        m_cluster->stop();
        m_commits.hurry();
        m_cluster->wait();
    }
    EtcdEngine(const EtcdEngine&) = delete;
    EtcdEngine& operator=(const EtcdEngine&) = delete;

    void commit(engine::Transaction&& transaction, milliseconds patience,
                std::function<void(engine::Outcome&&)> done) override
    {
        m_commits.start(std::move(transaction), patience, std::move(done));
    }

    engine::Page read(const std::string& from, const std::string& end, int64_t revision, size_t most,
                      milliseconds patience) override;

    std::unique_ptr<Watch> watch(const std::string& from, const std::string& end, int64_t after,
                                 engine::Watcher& watcher) override
    {
        return std::make_unique<Watching>(m_cluster, from, end, after, watcher);
    }

    std::string members(milliseconds patience) override
    {
        const Cluster::Work work(*m_cluster);
        return tellMembers(*m_cluster, Clock::now() + patience);
    }

    size_t mostOperations() const override { return MostOperations; }
    size_t longestValue() const override { return LongestRequest - LeftForTheRest; }

private:
    const std::shared_ptr<Cluster> m_cluster;
    Commits m_commits;
    Upkeep m_upkeep;
};

engine::Page EtcdEngine::read(const std::string& from, const std::string& end, int64_t revision, size_t most,
                              milliseconds patience)
{
    const Cluster::Work work(*m_cluster);
    etcdserverpb::RangeRequest request;
    request.set_key(from);
    request.set_range_end(end);
    request.set_revision(revision);
    request.set_limit(static_cast<int64_t>(most));
    etcdserverpb::RangeResponse response;
    grpc::Status status;
    Verdict verdict = m_cluster->ask(Clock::now() + patience, status, [&](Call& call) {
        call.context.AddMetadata("hasleader", "true");
        return call.connection->kv->Range(&call.context, request, &response);
    });
    engine::Page page;
    page.good = verdict.means == Verdict::Means::Answered;
    page.compacted = status.error_message() == "etcdserver: mvcc: required revision has been compacted";
    page.why = std::move(verdict.why);
    page.more = response.more();
    page.revision = revision != 0 ? revision : response.header().revision();
    page.entries.reserve(static_cast<size_t>(response.kvs_size()));
    for (mvccpb::KeyValue& keyValue : *response.mutable_kvs())
        page.entries.push_back(toEntry(std::move(keyValue)));
    return page;
}

} // namespace

} // namespace obregd::etcd

extern "C" __attribute__((visibility("default"))) obregd::engine::Engine*
obregd_engine_open(int version, const obregd::engine::Options& options, std::string& why)
{
    if (version != obregd::engine::Version) {
        why = "obregd-etcd is of another version than this daemon: install both from one release";
        return nullptr;
    }
    try {
        return new obregd::etcd::EtcdEngine(options);
    } catch (const std::exception& failure) {
        why = failure.what();
        return nullptr;
    }
}
