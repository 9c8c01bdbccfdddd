#include "etcd/members.h"

#include <algorithm>
#include <future>

namespace obregd::etcd {

namespace {

/// What one endpoint says of its member.
struct Answer {
    std::string endpoint;
    std::string whyNone; ///< empty: it has answered
    etcdserverpb::StatusResponse status;
};

Answer askOne(const std::shared_ptr<Connection>& connection, const std::string& token, Clock::time_point deadline)
{
    Call call(connection, token);
    call.context.set_deadline(deadline);
    Answer answer{connection->endpoint, "", {}};
    const Verdict verdict = judge(call, connection->maintenance->Status(&call.context, {}, &answer.status));
    if (verdict.means != Verdict::Means::Answered)
        answer.whyNone = verdict.why;
    return answer;
}

bool isOf(const Answer& answer, const etcdserverpb::Member& member)
{
    if (answer.whyNone.empty())
        return answer.status.header().member_id() == member.id();
    const auto& urls = member.clienturls();
    return std::find(urls.begin(), urls.end(), answer.endpoint) != urls.end();
}

std::string lineOf(const Answer& answer)
{
    if (!answer.whyNone.empty())
        return "not reached: " + answer.whyNone;
    const auto& status = answer.status;
    const bool isLeader = status.leader() == status.header().member_id();
    std::string line = isLeader ? "leads" : status.leader() != 0 ? "follows" : "sees no leader";
    line += ", revision " + std::to_string(status.header().revision()) + ", version " + status.version() + ", " +
            std::to_string(status.dbsize() / 1024) + " KiB";
    for (const std::string& error : status.errors())
        line += ", " + error;
    return line;
}

std::string nameOf(const etcdserverpb::Member& member)
{
    char id[17];
    static_cast<void>(snprintf(id, sizeof id, "%llx", static_cast<unsigned long long>(member.id())));
    return (member.name().empty() ? "(not started)" : member.name()) + " (" + id + "): ";
}

} // namespace

std::string tellMembers(Cluster& cluster, Clock::time_point deadline)
{
    // Half of the time for each of the two questions.
    const auto half = Clock::now() + (deadline - Clock::now()) / 2;
    std::vector<std::future<Answer>> asked;
    for (const auto& connection : cluster.all())
        asked.push_back(std::async(std::launch::async, askOne, connection, cluster.token(), half));
    std::vector<Answer> answers;
    answers.reserve(asked.size());
    for (auto& future : asked)
        answers.push_back(future.get());

    etcdserverpb::MemberListResponse list;
    grpc::Status status;
    cluster.ask(deadline, status,
                [&](Call& call) { return call.connection->cluster->MemberList(&call.context, {}, &list); });
    std::string text;
    for (const auto& member : list.members()) {
        const auto own = [&](const Answer& answer) { return isOf(answer, member); };
        const auto found = std::find_if(answers.begin(), answers.end(), own);
        text += nameOf(member) + (found == answers.end() ? "not among the endpoints" : lineOf(*found)) + '\n';
        answers.erase(std::remove_if(answers.begin(), answers.end(), own), answers.end());
    }
    for (const Answer& answer : answers)
        text += answer.endpoint + ": " + lineOf(answer) + '\n';
    return text;
}

} // namespace obregd::etcd
