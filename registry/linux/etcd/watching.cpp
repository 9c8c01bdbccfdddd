#include "etcd/watching.h"

#include <utility>

namespace obregd::etcd {

/// Lets the destructor cancel a call while it exists.
class Watching::Current {
public:
    Current(Watching& watching, Call& call) : m_watching(watching)
    {
        const std::lock_guard lock(m_watching.m_mutex);
        m_watching.m_call = &call;
        if (m_watching.m_isEnding)
            call.context.TryCancel();
    }
    ~Current()
    {
        const std::lock_guard lock(m_watching.m_mutex);
        m_watching.m_call = nullptr;
    }
    Current(const Current&) = delete;
    Current& operator=(const Current&) = delete;

private:
    Watching& m_watching;
};

Watching::Watching(std::shared_ptr<Cluster> cluster, const std::string& from, const std::string& end, int64_t after,
                   engine::Watcher& watcher)
    : m_cluster(std::move(cluster)), m_watcher(watcher), m_gathering(after), m_work(std::in_place, *m_cluster)
{
    auto& create = *m_request.mutable_create_request();
    create.set_key(from);
    create.set_range_end(end);
    create.set_fragment(true);
    create.set_progress_notify(true);
    m_thread = std::thread(&Watching::serve, this);
}

Watching::~Watching()
{
    m_isEnding = true;
    m_cluster->wake();
    {
        const std::lock_guard lock(m_mutex);
        if (m_call != nullptr)
            m_call->context.TryCancel();
    }
    m_thread.join();
}

void Watching::serve()
{
    for (Next next = Next::GoOn; next != Next::Nothing && !m_isEnding;) {
        ++m_attempts;
        Call call(m_cluster->inUse(), m_cluster->token());
        call.context.AddMetadata("hasleader", "true");
        {
            const Current current(*this, call);
            next = follow(call);
        }
        if (next == Next::Elsewhere)
            m_cluster->leave(*call.connection);
        if (!m_cluster->pause(m_cluster->pauseAfter(m_attempts), &m_isEnding))
            break;
    }
    m_work.reset();
}

Watching::Next Watching::follow(Call& call)
{
    std::string why;
    Next next = Next::GoOn;
    m_request.mutable_create_request()->set_start_revision(m_gathering.restart() + 1);
    const auto stream = call.connection->watch->Watch(&call.context);
    etcdserverpb::WatchResponse response;
    for (stream->Write(m_request); next == Next::GoOn && stream->Read(&response);)
        next = take(call, std::move(response), why);
    call.context.TryCancel();
    const grpc::Status status = stream->Finish();
    if (next == Next::GoOn) {
        Verdict verdict = judge(call, status);
        why = verdict.why;
        if (verdict.means == Verdict::Means::LogIn)
            m_cluster->renew(call.token);
        else
            next = Next::Elsewhere;
    }
    if (next != Next::Nothing)
        tell(false, why);
    return next;
}

Watching::Next Watching::take(Call& call, etcdserverpb::WatchResponse&& response, std::string& why)
{
    if (m_isEnding)
        return Next::Nothing;
    if (response.compact_revision() != 0) {
        m_watcher.compacted();
        return Next::Nothing;
    }
    if (response.canceled()) {
        why = call.connection->endpoint + ": " + response.cancel_reason();
        const std::string refusal = m_cluster->renew(call.token);
        if (!refusal.empty())
            why += "; " + refusal;
        return Next::Elsewhere;
    }
    if (response.created()) {
        m_attempts = 0;
        tell(true, "");
    }
    std::vector<engine::Revision> revisions = m_gathering.take(std::move(response));
    if (!revisions.empty())
        m_watcher.changed(std::move(revisions));
    return Next::GoOn;
}

void Watching::tell(bool isReached, const std::string& why)
{
    if (m_isEnding || m_isReached == isReached)
        return;
    m_isReached = isReached;
    m_watcher.reached(isReached, why);
}

} // namespace obregd::etcd
