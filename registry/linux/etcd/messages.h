// What the engine's interface says, in etcd's messages, and back.
#ifndef OBREGD_ETCD_MESSAGES_H
#define OBREGD_ETCD_MESSAGES_H

#include "daemon/engine/engine.h"

#include <etcd/etcdserver/etcdserverpb/rpc.pb.h>

namespace obregd::etcd {

etcdserverpb::TxnRequest toRequest(engine::Transaction&& transaction);
engine::Outcome toOutcome(etcdserverpb::TxnResponse&& response);
engine::Entry toEntry(mvccpb::KeyValue&& keyValue);

/// Makes whole revisions of what a watch's responses bring, which may end in the middle of one.
class Gathering {
public:
    /// `after`: what was told before.
    explicit Gathering(int64_t after) : m_told(after) {}

    /// The revisions that are complete with this response.
    std::vector<engine::Revision> take(etcdserverpb::WatchResponse&& response);
    /// All up to this one were given; a part of the next is forgotten.
    int64_t restart();

private:
    int64_t m_told;
    engine::Revision m_part;
};

} // namespace obregd::etcd

#endif
