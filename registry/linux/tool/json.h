// What the tool says, as JSON: one object in one line. Its source is the one place that knows nlohmann/json. Pure
// functions; any thread.
//
// Text that is no UTF-8 is repaired, and its bytes stand beside it as pairs of digits under the name with "Hex".
#ifndef OBREG_TOOL_JSON_H
#define OBREG_TOOL_JSON_H

#include <string>

#include "errors.h"
#include "output.h"

namespace obregtool {

/// "kind", and each field under its name. A value: "type", "data" (text, number, list of strings or null) and, unless
/// these give the stored bytes exactly, "hex".
std::string jsonOf(const Fact& fact);

/// "error"; "key", "status" and "code", "advice" where there are any; "exit".
std::string jsonOf(const Failure& failure);

} // namespace obregtool

#endif
