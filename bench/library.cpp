// The library, through its public functions.
#include <vector>

#include <obreg/obreg.h>

#include "contender.h"

namespace {

const auto Key = reinterpret_cast<HANDLE>(0x5a5a5a5aUL);

class Library : public Contender {
public:
    explicit Library(const Load& load) : m_load(load), m_name(valueName(load.bytes)) {}

    std::function<void()> newCall() override
    {
        std::vector<char> data(m_load.bytes, 'v');
        if (m_load.set)
            return [this, data]() mutable {
                const auto length = static_cast<UINT32>(data.size());
                require(OBRegSetValueExA(Key, m_name.c_str(), 0, 3, data.data(), length) == 0, "set failed");
            };
        return [this, data]() mutable {
            auto length = static_cast<UINT32>(data.size());
            const REGSTATUS status = OBRegQueryValueExA(Key, m_name.c_str(), nullptr, nullptr, data.data(), &length);
            require(status == 0 && length == m_load.bytes && data.back() == 'e', "query failed");
        };
    }

private:
    const Load m_load;
    const std::string m_name;
};

} // namespace

std::unique_ptr<Contender> makeLibrary(const Load& load) { return std::make_unique<Library>(load); }
