// The daemon's way from a stream of packets to its replies, on a real store that each input finds the same: every reply
// begins as a reply does, and requests stay as they are.
#include "common/channelproto.h"
#include "daemon/operations.h"
#include "fuzz/fuzz.h"
#include "obreg/roots.h"
#include "support/temporary_folder.h"

using namespace obregd;

namespace {

constexpr Peer Stranger{12345, 1}; // who may write only below his own key
const Peer Root{0, 1};

struct Registry {
    Registry()
    {
        store.begin();
        const KeyId key = store.addKey(MachineId, "Key", MachineOwner);
        store.addKey(key, "Sub", MachineOwner);
        store.setValue(key, "value", REG_SZ, "data", 4);
        store.commit();
    }
    const TemporaryFolder folder;
    WritableStore store{folder / "store"};
};

std::string_view encoded(const Reply& reply) { return {reply.pText.get(), static_cast<size_t>(reply.length)}; }

void serve(WritableStore& store, const Peer& peer, std::string_view payload)
{
    const fuzz::Block block(payload);
    const std::string_view text(block.data(), payload.size());
    const Operation* const pOperation = findOperation(text);
    if (pOperation == nullptr)
        return;
    const Session session{store, &store, peer};
    const Reply reply = pOperation->serve(session, text);
    HOLDS(block.unchanged());
    if (reply.pText == nullptr)
        return;
    HOLDS(encoded(reply).substr(0, 8) == "Status =" && encoded(reply).substr(16, 2) == "\r\n");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    static Registry registry;
    WritableStore& store = registry.store;
    std::string_view stream(reinterpret_cast<const char*>(pData), size);
    store.begin();
    for (bool odd = true; stream.size() >= static_cast<size_t>(PktHdrLength); odd = !odd) {
        uint32_t id = 0;
        int length = 0;
        if (!ChannelProto::getReqIdAndPayloadLength(stream.data(), PktHdrLength, &id, &length) || length < 0 ||
            ChannelProto::getPktType(stream.front()) != ChannelProto::ReqDataCarrierPacketType)
            break;
        stream.remove_prefix(static_cast<size_t>(PktHdrLength));
        const std::string_view payload = stream.substr(0, static_cast<size_t>(length));
        stream.remove_prefix(payload.size());
        serve(store, odd ? Root : Stranger, payload);
    }
    store.rollback();
    return 0;
}
