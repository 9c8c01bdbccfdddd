#include "etcd/messages.h"

#include <utility>

namespace obregd::etcd {

namespace {

etcdserverpb::Compare::CompareResult toResult(engine::Compare::Is is)
{
    switch (is) {
    case engine::Compare::Is::NotEqual:
        return etcdserverpb::Compare::NOT_EQUAL;
    case engine::Compare::Is::Less:
        return etcdserverpb::Compare::LESS;
    case engine::Compare::Is::Greater:
        return etcdserverpb::Compare::GREATER;
    case engine::Compare::Is::Equal:
        break;
    }
    return etcdserverpb::Compare::EQUAL;
}

void fill(etcdserverpb::Compare& message, engine::Compare&& compare)
{
    message.set_result(toResult(compare.is));
    message.set_key(std::move(compare.key));
    message.set_range_end(std::move(compare.end));
    switch (compare.what) {
    case engine::Compare::What::Created:
        message.set_target(etcdserverpb::Compare::CREATE);
        message.set_create_revision(compare.number);
        break;
    case engine::Compare::What::Modified:
        message.set_target(etcdserverpb::Compare::MOD);
        message.set_mod_revision(compare.number);
        break;
    case engine::Compare::What::Value:
        message.set_target(etcdserverpb::Compare::VALUE);
        message.set_value(std::move(compare.value));
        break;
    }
}

void fill(etcdserverpb::RequestOp& message, engine::Operation&& operation)
{
    if (operation.kind == engine::Operation::Kind::Put) {
        message.mutable_request_put()->set_key(std::move(operation.key));
        message.mutable_request_put()->set_value(std::move(operation.value));
    } else {
        message.mutable_request_delete_range()->set_key(std::move(operation.key));
        message.mutable_request_delete_range()->set_range_end(std::move(operation.end));
    }
}

} // namespace

etcdserverpb::TxnRequest toRequest(engine::Transaction&& transaction)
{
    etcdserverpb::TxnRequest request;
    for (engine::Compare& compare : transaction.compares)
        fill(*request.add_compare(), std::move(compare));
    for (engine::Operation& operation : transaction.operations)
        fill(*request.add_success(), std::move(operation));
    if (!transaction.asked.empty())
        request.add_failure()->mutable_request_range()->set_key(std::move(transaction.asked));
    return request;
}

engine::Outcome toOutcome(etcdserverpb::TxnResponse&& response)
{
    engine::Outcome outcome;
    outcome.end = response.succeeded() ? engine::Outcome::End::Done : engine::Outcome::End::NotDone;
    outcome.revision = response.header().revision();
    if (!response.succeeded() && response.responses_size() == 1) {
        auto& range = *response.mutable_responses(0)->mutable_response_range();
        if (range.kvs_size() == 1)
            outcome.asked = toEntry(std::move(*range.mutable_kvs(0)));
    }
    return outcome;
}

engine::Entry toEntry(mvccpb::KeyValue&& keyValue)
{
    return {std::move(*keyValue.mutable_key()), std::move(*keyValue.mutable_value()), keyValue.create_revision(),
            keyValue.mod_revision()};
}

std::vector<engine::Revision> Gathering::take(etcdserverpb::WatchResponse&& response)
{
    std::vector<engine::Revision> whole;
    const auto complete = [&] {
        if (m_part.events.empty())
            return;
        m_told = m_part.number;
        whole.push_back(std::exchange(m_part, {}));
    };
    for (mvccpb::Event& event : *response.mutable_events()) {
        const int64_t number = event.kv().mod_revision();
        if (number <= m_told)
            continue;
        if (number != m_part.number)
            complete();
        m_part.number = number;
        m_part.events.push_back({event.type() == mvccpb::Event::DELETE, toEntry(std::move(*event.mutable_kv()))});
    }
    if (!response.fragment())
        complete();
    return whole;
}

int64_t Gathering::restart()
{
    m_part = {};
    return m_told;
}

} // namespace obregd::etcd
