// A point in the registry's history as people write it: the number of a change, or a time. Pure functions; any thread.
#ifndef OBREG_TOOL_MOMENT_H
#define OBREG_TOOL_MOMENT_H

#include <cstdint>
#include <string>

#include "history.h"

namespace obregtool {

struct Moment {
    bool isTime;
    uint64_t at; ///< a change's number; or 100 ns units since 1601-01-01 UTC

    bool isBefore(const PastChange& change) const { return at < (isTime ? change.time : change.number); }
    bool isBehind(const PastChange& change) const { return at > (isTime ? change.time : change.number); }
};

/// A number; "2026-11-22 22:18:46", "2026-11-22 22:18", "2026-11-22" in local time, or with "Z" or "+0100" at the end;
/// "22:18" of today; "10s", "5m", "2h", "3d", "1w" ago. A day alone is its first moment. A local time that the clock
/// shows twice or never, as it is set back or forward, wants its zone. Throws UsageError.
Moment momentArgument(const std::string& text);

/// A user by name or number. Throws UsageError.
uint64_t userArgument(const std::string& text);
/// The name of a user; the number when there is none.
std::string userName(uint64_t uid);

} // namespace obregtool

#endif
