// What the daemon counts of its own work since it started, and the tree in which clients read it: the key below
// HKEY_PERFORMANCE_DATA for each group, a REG_QWORD for each figure. Nobody writes there. Groups whose name begins with
// "User" hold one figure of each user, under the user's number.
//
// Process-wide, like the log; any thread.
#ifndef OBREG_DAEMON_FIGURES_H
#define OBREG_DAEMON_FIGURES_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>

#include "common/msgproto.h"
#include "daemon/tree.h"

namespace obregd {

/// In the order of the table in figures.cpp, which names and groups them.
enum class Figure : size_t {
    FirstRequest, // one for each type of request, in the order of ReqMessage::MessageTypes
    UnknownRequests = FirstRequest + ReqMessage::UnknownReqMsgType - 1,
    Commits,
    Writes,
    FailedTransactions,
    Connected,
    Accepted,
    CutOff,
    BytesReceived,
    BytesSent,
    BytesHeld,
    Number
};

inline std::array<std::atomic<uint64_t>, static_cast<size_t>(Figure::Number)> figureValues{};

/// What is counted for each user, in the order of the groups in figures.cpp.
enum class UserFigure : size_t { Connections, Held, Requests, Refused, Keys, Bytes, Number };

/// One user's counts; for any thread.
using UserCounts = std::array<std::atomic<uint64_t>, static_cast<size_t>(UserFigure::Number)>;

/// The counts of a user; shown as long as somebody has them.
std::shared_ptr<UserCounts> countsOf(uid_t uid);

inline void count(UserCounts& counts, UserFigure figure, int64_t more = 1)
{
    counts[static_cast<size_t>(figure)].fetch_add(static_cast<uint64_t>(more), std::memory_order_relaxed);
}

/// `more` may be negative for what goes up and down.
inline void count(Figure figure, int64_t more = 1)
{
    figureValues[static_cast<size_t>(figure)].fetch_add(static_cast<uint64_t>(more), std::memory_order_relaxed);
}

inline void countRequest(ReqMessage::MessageTypes type) { count(static_cast<Figure>(type - 1)); }

/// The tree of PerformanceId and the keys below it.
Tree& figureTree();

} // namespace obregd

#endif
