// D-Bus through a bus daemon, a connection for every thread (its library allows no sharing).
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>

#include "contender.h"

namespace {

constexpr char Name[] = "org.obreg.Bench";
constexpr char Path[] = "/bench";

using Bus = std::shared_ptr<sd_bus>;

Bus connectTo(const std::string& address)
{
    sd_bus* pBus = nullptr;
    require(sd_bus_new(&pBus) >= 0, "no bus");
    Bus bus(pBus, sd_bus_flush_close_unref);
    require(sd_bus_set_address(pBus, address.c_str()) >= 0 && sd_bus_set_bus_client(pBus, 1) >= 0 &&
                sd_bus_start(pBus) >= 0,
            "no bus");
    return bus;
}

int answer(sd_bus_message* pRequest, void* /*pUser*/, sd_bus_error* /*pError*/)
{
    uint32_t bytes = 0;
    sd_bus_message* pReply = nullptr;
    require(sd_bus_message_read(pRequest, "u", &bytes) >= 0, "bad request");
    require(sd_bus_message_new_method_return(pRequest, &pReply) >= 0, "no reply");
    const std::vector<char> value(bytes, 'e');
    sd_bus_message_append_array(pReply, 'y', value.data(), value.size());
    const int sent = sd_bus_send(nullptr, pReply, nullptr);
    sd_bus_message_unref(pReply);
    return sent;
}

class Dbus : public Contender {
public:
    explicit Dbus(Load load) : m_load(std::move(load)) {}

    std::function<void()> newCall() override
    {
        return [this, bus = connectTo(m_load.address)] {
            sd_bus_message* pReply = nullptr;
            const void* pData = nullptr;
            size_t length = 0;
            const int status = sd_bus_call_method(bus.get(), Name, Path, Name, "Get", nullptr, &pReply, "u",
                                                  static_cast<uint32_t>(m_load.bytes));
            require(status >= 0 && sd_bus_message_read_array(pReply, 'y', &pData, &length) >= 0 &&
                        length == m_load.bytes,
                    "bad reply");
            sd_bus_message_unref(pReply);
        };
    }

private:
    const Load m_load;
};

} // namespace

void serveDbus(const Load& load)
{
    static const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Get", "u", "ay", answer, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};
    const Bus bus = connectTo(load.address);
    require(sd_bus_add_object_vtable(bus.get(), nullptr, Path, Name, methods, nullptr) >= 0 &&
                sd_bus_request_name(bus.get(), Name, 0) >= 0,
            "no service");
    for (;;) {
        const int progress = sd_bus_process(bus.get(), nullptr);
        require(progress >= 0, "bus lost");
        if (progress == 0)
            sd_bus_wait(bus.get(), UINT64_MAX);
    }
}

std::unique_ptr<Contender> makeDbus(const Load& load) { return std::make_unique<Dbus>(load); }
