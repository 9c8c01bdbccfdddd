// The bytes of one request, while they arrive and until it is done.
//
// The buffer grows with what has arrived, never with what was announced: whoever announces 64 MiB and sends ten bytes
// costs what he has sent and a small step. Moved along with its request; one owner at a time.
#ifndef OBREG_DAEMON_SERVE_PAYLOAD_H
#define OBREG_DAEMON_SERVE_PAYLOAD_H

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string_view>

namespace obregd {

class Payload {
public:
    Payload() = default;

    /// Expects `length` bytes, of which `begun` have arrived.
    Payload(size_t length, std::string_view begun) : m_length(length)
    {
        grow(std::min(length, std::max(begun.size(), Steps[0])));
        std::memcpy(m_pBytes.get(), begun.data(), begun.size());
        m_arrived = begun.size();
    }

    bool complete() const { return m_arrived == m_length; }
    std::string_view text() const { return {m_pBytes.get(), m_arrived}; }
    size_t capacity() const { return m_capacity; }

    /// Room for the next bytes; not empty while the payload is not complete.
    std::span<char> room()
    {
        if (m_arrived == m_capacity) {
            const auto* const step = std::upper_bound(Steps.begin(), Steps.end(), m_capacity);
            grow(std::min(m_length, step == Steps.end() ? 2 * m_capacity : *step));
        }
        return {m_pBytes.get() + m_arrived, m_capacity - m_arrived};
    }

    /// That many bytes were put there.
    void arrived(size_t bytes) { m_arrived += bytes; }

private:
    static constexpr std::array<size_t, 3> Steps = {2048, 16384, 65536}; // bytes; then twice as many each time

    struct Free {
        void operator()(char* pBytes) const { std::free(pBytes); }
    };

    /// By realloc, which moves pages and not bytes when the block is large.
    void grow(size_t capacity)
    {
        void* const pGrown = std::realloc(m_pBytes.get(), std::max(capacity, size_t{1}));
        if (pGrown == nullptr)
            throw std::bad_alloc();
        static_cast<void>(m_pBytes.release());
        m_pBytes.reset(static_cast<char*>(pGrown));
        m_capacity = capacity;
    }

    std::unique_ptr<char, Free> m_pBytes;
    size_t m_length = 0;
    size_t m_arrived = 0;
    size_t m_capacity = 0;
};

} // namespace obregd

#endif
