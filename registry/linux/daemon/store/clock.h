// The registry's time: 100 ns units since 1601-01-01 UTC.
#ifndef OBREG_DAEMON_STORE_CLOCK_H
#define OBREG_DAEMON_STORE_CLOCK_H

#include <chrono>
#include <cstdint>

namespace obregd {

inline constexpr uint64_t UnixEpoch = 116444736000000000; ///< 1970-01-01 in this time

inline uint64_t timeNow()
{
    using Units = std::chrono::duration<int64_t, std::ratio<1, 10'000'000>>;
    const auto sinceUnixEpoch = std::chrono::system_clock::now().time_since_epoch();
    return UnixEpoch + static_cast<uint64_t>(std::chrono::duration_cast<Units>(sinceUnixEpoch).count());
}

} // namespace obregd

#endif
