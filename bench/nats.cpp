// NATS request and reply over loopback TCP, one connection for all threads.
#include <vector>

#include <nats/nats.h>
#include <unistd.h>

#include "contender.h"

namespace {

constexpr char Subject[] = "obreg.bench";
constexpr int64_t TimeoutMs = 10000;

natsConnection* connectTo(const std::string& address)
{
    natsOptions* pOptions = nullptr;
    natsConnection* pConnection = nullptr;
    require(natsOptions_Create(&pOptions) == NATS_OK, "no options");
    natsOptions_SetURL(pOptions, address.c_str());
    natsOptions_SetSendAsap(pOptions, true); // else it waits a millisecond for more to send
    require(natsConnection_Connect(&pConnection, pOptions) == NATS_OK, "no nats server");
    natsOptions_Destroy(pOptions);
    return pConnection;
}

void answer(natsConnection* pConnection, natsSubscription* /*pSubscription*/, natsMsg* pMsg, void* /*pUser*/)
{
    const std::vector<char> value(std::stoul(natsMsg_GetData(pMsg)), 'e');
    natsConnection_Publish(pConnection, natsMsg_GetReply(pMsg), value.data(), static_cast<int>(value.size()));
    natsMsg_Destroy(pMsg);
}

class Nats : public Contender {
public:
    explicit Nats(const Load& load) : m_load(load), m_pConnection(connectTo(load.address)) {}

    std::function<void()> newCall() override
    {
        return [this, size = std::to_string(m_load.bytes)] {
            natsMsg* pReply = nullptr;
            const natsStatus status = natsConnection_Request(&pReply, m_pConnection, Subject, size.data(),
                                                             static_cast<int>(size.size() + 1), TimeoutMs);
            require(status == NATS_OK, natsStatus_GetText(status));
            require(natsMsg_GetDataLength(pReply) == static_cast<int>(m_load.bytes), "bad reply");
            natsMsg_Destroy(pReply);
        };
    }

private:
    const Load m_load;
    natsConnection* const m_pConnection; // until the process ends
};

} // namespace

void serveNats(const Load& load)
{
    natsSubscription* pSubscription = nullptr;
    natsConnection* const pConnection = connectTo(load.address);
    require(natsConnection_Subscribe(&pSubscription, pConnection, Subject, answer, nullptr) == NATS_OK, "no service");
    for (;;)
        pause();
}

std::unique_ptr<Contender> makeNats(const Load& load) { return std::make_unique<Nats>(load); }
