#include "etcd/verdict.h"

namespace obregd::etcd {

namespace {

using Means = Verdict::Means;

/// What etcd says before it has begun with a request.
constexpr struct {
    const char* words;
    Means means;
} Sayings[] = {
    {"etcdserver: no leader", Means::Elsewhere},
    {"etcdserver: not capable", Means::Elsewhere},
    {"etcdserver: rpc not supported for learner", Means::Elsewhere},
    {"etcdserver: too many requests", Means::Elsewhere},
    {"etcdserver: invalid auth token", Means::LogIn},
    {"etcdserver: revision of auth store is old", Means::LogIn},
    {"etcdserver: user name is empty", Means::LogIn},
};

Means meaning(const Call& call, const grpc::Status& status)
{
    for (const auto& saying : Sayings) {
        if (status.error_message() == saying.words)
            return saying.means;
    }
    switch (status.error_code()) {
    case grpc::StatusCode::OK:
        return Means::Answered;
    case grpc::StatusCode::UNAVAILABLE:
    case grpc::StatusCode::CANCELLED:
    case grpc::StatusCode::DEADLINE_EXCEEDED:
    case grpc::StatusCode::ABORTED:
    case grpc::StatusCode::INTERNAL:
    case grpc::StatusCode::UNKNOWN:
        return call.mayHaveArrived() ? Means::Lost : Means::Elsewhere;
    default:
        return Means::Refused;
    }
}

} // namespace

Verdict judge(const Call& call, const grpc::Status& status)
{
    const Means means = meaning(call, status);
    if (means == Means::Answered)
        return {means};
    std::string why = call.connection->whyClosed();
    if (why.empty() && status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED)
        why = "no answer in time";
    else if (why.empty())
        why = status.error_message();
    return {means, call.connection->endpoint + ": " + why};
}

} // namespace obregd::etcd
