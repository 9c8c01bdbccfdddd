// The users whose programs are connected, and what each of them makes the daemon hold and do.
//
// Everything that is limited is limited by user: what one has taken is never the loss of another, and where too much is
// held or connected in all, it is the user with the most who has to give.
//
// Belongs to the server and its thread; the counts that others read are atomics (figures.h).
#ifndef OBREG_DAEMON_SERVE_USERS_H
#define OBREG_DAEMON_SERVE_USERS_H

#include <unordered_map>
#include <unordered_set>

#include "daemon/figures.h"
#include "daemon/log.h"
#include "daemon/options.h"
#include "daemon/serve/job.h"

namespace obregd {

/// So many a second, and as many at once after a quiet second.
class Rate {
public:
    using Clock = std::chrono::steady_clock;

    /// False when there have been too many. perSecond 0: there are never too many.
    bool take(size_t perSecond, Clock::time_point now);

private:
    double m_left = 0;
    Clock::time_point m_seen{};
};

/// Why a user's client is warned of in the log. Each is limited by itself.
enum class Cause : size_t { BadPacket, TooLong, NotTaken, Overdue, Held, TooMany, NoMemory, StoreFailed, Number };

struct User {
    explicit User(uid_t id) : uid(id), pCounts(countsOf(id)) {}

    const uid_t uid;
    const bool trusted = mayWrite({uid, 0}, MachineOwner); ///< root and the daemon's own user
    std::unordered_set<Connection*> connections;           ///< the open ones
    size_t held = 0;                                       ///< bytes, of closed ones that are still worked for too
    size_t committing = 0;                                 ///< of these, writes on their way to the disk
    size_t watches = 0;                                    ///< requests that wait for changes
    Rate requests;
    std::array<LogLimit, static_cast<size_t>(Cause::Number)> logged;
    Ring<Connection> parked; ///< connections that read on when less is committing
    Turns<Connection>::User turns;
    JobQueue::User reads;
    JobQueue::User writes;
    std::shared_ptr<UserCounts> pCounts;
};

/// Logs a warning about a user's client, unless there have been many for that cause lately.
/// Needs no memory.
void warn(User& user, pid_t process, Cause cause, const char* pFormat, ...) __attribute__((format(printf, 4, 5)));

class Users {
public:
    /// The user of that number; stays as long as somebody has it.
    std::shared_ptr<User> of(uid_t uid);

    /// The user who has most by a measure; null when nobody has any.
    template <class Measure>
    User* greatest(Measure measure) const
    {
        User* pGreatest = nullptr;
        for (const auto& [uid, pUser] : m_users)
            if (measure(*pUser) > (pGreatest == nullptr ? 0 : measure(*pGreatest)))
                pGreatest = pUser.get();
        return pGreatest;
    }

private:
    std::unordered_map<uid_t, std::shared_ptr<User>> m_users;
};

} // namespace obregd

#endif
