// The two atomic operations that counts and ids are moved with.
#ifndef OBREG_PLATFORM_H
#define OBREG_PLATFORM_H

#include <cstdint>

/// Adds 1 to *pWord in one locked read-modify-write and returns the new value. Any thread, any time.
inline uint32_t InterlockedIncrement(volatile uint32_t* pWord)
{
    return __atomic_add_fetch(pWord, 1, __ATOMIC_SEQ_CST);
}

/// Subtracts 1 from *pWord in one locked read-modify-write and returns the new value. Any thread, any time.
inline uint32_t InterlockedDecrement(volatile uint32_t* pWord)
{
    return __atomic_sub_fetch(pWord, 1, __ATOMIC_SEQ_CST);
}

#endif
