// Memory set aside for one thing that must go on when there is none to be had.
//
// A Reserve serves one allocation at a time, up to its size; a second one, or a longer one, comes from the heap as
// usual. Its Allocator is what Asio's bind_allocator takes. One thread.
#ifndef OBREG_DAEMON_SERVE_RESERVE_H
#define OBREG_DAEMON_SERVE_RESERVE_H

#include <array>
#include <cstddef>
#include <new>

namespace obregd {

class Reserve {
public:
    Reserve() = default;
    Reserve(const Reserve&) = delete;
    Reserve& operator=(const Reserve&) = delete;

    void* take(size_t size)
    {
        if (m_taken || size > m_bytes.size())
            return ::operator new(size);
        m_taken = true;
        return m_bytes.data();
    }

    void giveBack(void* p)
    {
        if (p == m_bytes.data())
            m_taken = false;
        else
            ::operator delete(p);
    }

    template <class T>
    struct Allocator {
        using value_type = T;

        explicit Allocator(Reserve& from) : pReserve(&from) {}
        template <class Other>
        Allocator(const Allocator<Other>& other) : pReserve(other.pReserve)
        {} // NOLINT: allocators convert

        T* allocate(size_t count) { return static_cast<T*>(pReserve->take(count * sizeof(T))); }
        void deallocate(T* p, size_t) { pReserve->giveBack(p); }

        template <class Other>
        bool operator==(const Allocator<Other>& other) const
        {
            return pReserve == other.pReserve;
        }

        Reserve* pReserve;
    };

private:
    alignas(std::max_align_t) std::array<std::byte, 512> m_bytes;
    bool m_taken = false;
};

} // namespace obregd

#endif
