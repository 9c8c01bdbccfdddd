// Waiting for what nobody can signal.
#ifndef OBREG_CLIENT_PATIENCE_H
#define OBREG_CLIENT_PATIENCE_H

#include <algorithm>
#include <chrono>
#include <ctime>

/// Looks until `done()` is true, and says so, or until the patience is over. It looks again soon at first, since most
/// of what is waited for takes some microseconds, and ever more seldom. Any thread.
template <class Done>
bool await(Done done, std::chrono::milliseconds patience)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::nanoseconds longest = std::chrono::milliseconds(5);
    std::chrono::nanoseconds pause = std::chrono::microseconds(50);
    for (const Clock::time_point end = Clock::now() + patience; !done(); pause = std::min(2 * pause, longest)) {
        if (Clock::now() >= end)
            return false;
        const timespec time = {0, static_cast<long>(pause.count())};
        nanosleep(&time, nullptr);
    }
    return true;
}

#endif
