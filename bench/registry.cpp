// The library with obregd behind it and real data: a registry of many keys with the same number of values each.
//
// "fill" makes it, the contender queries or sets its values at random, beside as many parked watches on the same
// connection as it is told, "enumerate" reads the first key's values by
// index.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include <obreg/obreg.h>
#include <obreg/roots.h>
#include <obreg/watch.hpp>

#include "contender.h"

namespace {

constexpr char End = 'e';           ///< the last byte of every value
constexpr size_t KeysOfACall = 200; ///< that a thread holds open
constexpr int Fillers = 64;
constexpr size_t ValuesAtATime = 100;

/// Registries of different sizes lie side by side.
std::string keyName(const Load& load, size_t key)
{
    const std::string folder = std::to_string(load.keys) + " x " + std::to_string(load.values) + " x ";
    return "Bench\\" + folder + std::to_string(load.bytes) + "\\Key" + std::to_string(key);
}

/// As long as the name of the echo daemon's value.
std::string numberedName(size_t number)
{
    char name[32];
    snprintf(name, sizeof(name), "Value%011zu", number);
    return name;
}

class Key {
public:
    Key(const Load& load, size_t number, bool make)
    {
        const std::string name = keyName(load, number);
        const REGSTATUS status = make ? OBRegCreateKeyExA(HKEY_LOCAL_MACHINE, name.c_str(), 0, nullptr, 0,
                                                          KEY_ALL_ACCESS, nullptr, &m_handle, nullptr)
                                      : OBRegOpenKeyExA(HKEY_LOCAL_MACHINE, name.c_str(), 0, KEY_ALL_ACCESS, &m_handle);
        require(status == 0, "there is no such key; \"fill\" makes it");
    }

    void set(size_t value, std::vector<char>& data) const
    {
        const std::string name = numberedName(value);
        const auto length = static_cast<UINT32>(data.size());
        require(OBRegSetValueExA(m_handle, name.c_str(), 0, 3, data.data(), length) == 0, "set failed");
    }

    void query(size_t value, std::vector<char>& data) const
    {
        const std::string name = numberedName(value);
        auto length = static_cast<UINT32>(data.size());
        const REGSTATUS status = OBRegQueryValueExA(m_handle, name.c_str(), nullptr, nullptr, data.data(), &length);
        require(status == 0 && length == data.size() && data.back() == End, "query failed");
        data.back() = 0; // for the next one to be seen
    }

    bool enumerate(UINT32 index) const
    {
        char name[64];
        char data[64];
        int nameLength = sizeof(name);
        UINT32 length = sizeof(data);
        return OBRegEnumValueA(m_handle, index, name, &nameLength, nullptr, nullptr, data, &length) == 0;
    }

private:
    HANDLE m_handle = nullptr;
};

class Registry : public Contender {
public:
    explicit Registry(const Load& load) : m_load(load)
    {
        for (size_t i = 0; i < load.parked; ++i) {
            m_watches.push_back(obreg::Watch::start(obreg::users()));
            m_watches.back().descriptor(); // it waits from now on
        }
    }

    std::function<void()> newCall() override
    {
        std::minstd_rand random(++m_calls);
        std::vector<Key> keys;
        for (size_t i = 0; i < std::min(KeysOfACall, m_load.keys); ++i)
            keys.emplace_back(m_load, random() % m_load.keys, false);
        return [=, this, data = std::vector<char>(m_load.bytes)]() mutable {
            const Key& key = keys[random() % keys.size()];
            const size_t value = random() % m_load.values;
            if (!m_load.set)
                return key.query(value, data);
            std::fill(data.begin(), data.end() - 1, static_cast<char>(random())); // what is there already costs nothing
            data.back() = End;
            key.set(value, data);
        };
    }

private:
    const Load m_load;
    std::atomic<unsigned> m_calls{0};
    std::vector<obreg::Watch> m_watches;
};

} // namespace

std::unique_ptr<Contender> makeRegistry(const Load& load) { return std::make_unique<Registry>(load); }

void fillRegistry(const Load& load)
{
    const size_t parts = (load.values + ValuesAtATime - 1) / ValuesAtATime;
    std::atomic<size_t> next{0};
    const auto fill = [&] {
        std::vector<char> data(load.bytes, End);
        for (size_t part = next++; part < load.keys * parts; part = next++) {
            const Key key(load, part / parts, true);
            const size_t first = part % parts * ValuesAtATime;
            for (size_t value = first; value < std::min(first + ValuesAtATime, load.values); ++value)
                key.set(value, data);
        }
    };
    std::vector<std::thread> fillers(Fillers);
    for (std::thread& filler : fillers)
        filler = std::thread(fill);
    for (std::thread& filler : fillers)
        filler.join();
}

/// Prints the time for an entry, in microseconds, of reading all.
void enumerateRegistry(const Load& load)
{
    const Key key(load, 0, false);
    const auto begin = std::chrono::steady_clock::now();
    UINT32 entries = 0;
    while (key.enumerate(entries))
        ++entries;
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
    require(entries == load.values, "entries are missing");
    printf("%.2f\n", time.count() / entries);
}
