// How transactions ended, as a query of a token tells it: "done NUMBER", the journal's number after it, or
// "refused LINE COLUMN STATUS TEXT", STATUS as 0xC7F20005, TEXT what is wrong; 0 0 where it is no line's fault.
//
// What was done is in the store (tokens.h). What was refused is remembered here only: the last ones of each user, of so
// many users. Process-wide, like the figures; any thread.
#ifndef OBREG_DAEMON_OUTCOMES_H
#define OBREG_DAEMON_OUTCOMES_H

#include <optional>
#include <string>
#include <sys/types.h>

#include "obreg/obreg.h"
#include "regtext/regreader.h"

namespace obregd {

/// Thrown where a transaction is found to be impossible.
struct Refused {
    REGSTATUS status;
    regtext::Place place;
    std::string text;
};

void rememberRefusal(uid_t uid, const std::string& token, const Refused& refused);

/// What is remembered of it, as the query tells it.
std::optional<std::string> refusalOf(uid_t uid, const std::string& token);

} // namespace obregd

#endif
