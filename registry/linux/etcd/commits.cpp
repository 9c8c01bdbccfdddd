#include "etcd/commits.h"

#include "etcd/messages.h"

#include <grpcpp/alarm.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace obregd::etcd {

using engine::Outcome;
using std::chrono::milliseconds;

/// One transaction until it is answered; it owns itself. One thread at a time has it: who hands it to the queue touches
/// it no more.
class Commits::Commit {
public:
    Commit(Commits& commits, engine::Transaction&& transaction, Clock::time_point deadline,
           std::function<void(Outcome&&)>&& done)
        : m_commits(commits), m_cluster(*commits.m_cluster), m_work(m_cluster), m_deadline(deadline),
          m_done(std::move(done)), m_request(toRequest(std::move(transaction)))
    {}

    void attempt();
    /// What it has waited for, an answer or the end of a pause, has come.
    void proceed();
    void endPause() { m_alarm->Cancel(); }

private:
    struct Attempt {
        Attempt(Cluster& cluster, Clock::time_point deadline) : call(cluster.inUse(), cluster.token())
        {
            call.context.set_deadline(deadline);
            call.context.AddMetadata("hasleader", "true");
        }
        Call call;
        std::unique_ptr<grpc::ClientAsyncResponseReader<etcdserverpb::TxnResponse>> reader;
        etcdserverpb::TxnResponse response;
        grpc::Status status;
    };

    void judged(Verdict&& verdict);
    void pause(milliseconds time, std::string&& why);
    void end(Outcome&& outcome);

    Commits& m_commits;
    Cluster& m_cluster;
    const Cluster::Work m_work;
    const Clock::time_point m_deadline;
    const std::function<void(Outcome&&)> m_done;
    const etcdserverpb::TxnRequest m_request;
    size_t m_attempts = 0;
    std::optional<Attempt> m_attempt; ///< none while it pauses
    std::optional<grpc::Alarm> m_alarm;
};

void Commits::Commit::attempt()
{
    ++m_attempts;
    Attempt& attempt = m_attempt.emplace(m_cluster, m_deadline);
    attempt.reader = attempt.call.connection->kv->AsyncTxn(&attempt.call.context, m_request, &m_commits.m_queue);
    attempt.reader->Finish(&attempt.response, &attempt.status, this);
}

void Commits::Commit::proceed()
{
    if (m_attempt) {
        judged(judge(m_attempt->call, m_attempt->status));
        return;
    }
    {
        const std::lock_guard lock(m_commits.m_mutex);
        m_commits.m_pausing.erase(this);
    }
    attempt();
}

void Commits::Commit::judged(Verdict&& verdict)
{
    const size_t members = m_cluster.options.endpoints.size();
    switch (verdict.means) {
    case Verdict::Means::Answered:
        end(toOutcome(std::move(m_attempt->response)));
        break;
    case Verdict::Means::Refused:
        end({Outcome::End::Refused, 0, {}, std::move(verdict.why)});
        break;
    case Verdict::Means::Lost:
        if (m_attempt->status.error_code() != grpc::StatusCode::DEADLINE_EXCEEDED)
            m_cluster.leave(*m_attempt->call.connection);
        end({Outcome::End::Unknown, 0, {}, std::move(verdict.why)});
        break;
    case Verdict::Means::Elsewhere:
        m_cluster.leave(*m_attempt->call.connection);
        pause(m_cluster.pauseAfter(m_attempts), std::move(verdict.why));
        break;
    case Verdict::Means::LogIn:
        if (std::string refusal = m_cluster.renew(m_attempt->call.token); !refusal.empty())
            end({Outcome::End::Refused, 0, {}, std::move(refusal)});
        else
            pause(m_cluster.pauseAfter(m_attempts * members), std::move(verdict.why));
        break;
    }
}

void Commits::Commit::pause(milliseconds time, std::string&& why)
{
    m_attempt.reset();
    const auto until = Clock::now() + time;
    std::unique_lock lock(m_commits.m_mutex);
    if (until >= m_deadline || m_commits.m_isHurrying) {
        lock.unlock();
        end({Outcome::End::Unknown, 0, {}, std::move(why)});
    } else if (time == milliseconds(0)) {
        lock.unlock();
        attempt();
    } else {
        m_commits.m_pausing.insert(this);
        m_alarm.emplace(&m_commits.m_queue, until, this);
    }
}

void Commits::Commit::end(Outcome&& outcome)
{
    const std::unique_ptr<Commit> self(this);
    m_attempt.reset();
    m_done(std::move(outcome));
}

Commits::Commits(std::shared_ptr<Cluster> cluster) : m_cluster(std::move(cluster)), m_thread(&Commits::serve, this) {}

Commits::~Commits()
{
    m_queue.Shutdown();
    m_thread.join();
}

void Commits::start(engine::Transaction&& transaction, milliseconds patience, std::function<void(Outcome&&)>&& done)
{
    auto* commit = new Commit(*this, std::move(transaction), Clock::now() + patience, std::move(done));
    commit->attempt();
}

void Commits::hurry()
{
    const std::lock_guard lock(m_mutex);
    m_isHurrying = true;
    for (Commit* commit : m_pausing)
        commit->endPause();
}

void Commits::serve()
{
    void* commit = nullptr;
    for (bool isGood = false; m_queue.Next(&commit, &isGood);)
        static_cast<Commit*>(commit)->proceed();
}

} // namespace obregd::etcd
