// What the tool says, as JSON: one object in one line. Its source is the one place that knows nlohmann/json. Pure
// functions; any thread.
//
// Text that is no UTF-8 is repaired, and its bytes stand beside it as pairs of digits under the name with "Hex".
#ifndef OBREG_TOOL_JSON_H
#define OBREG_TOOL_JSON_H

#include <iosfwd>
#include <string>

#include "errors.h"
#include "output.h"

namespace obregtool {

/// "kind", and each field under its name. A value: "type" and "data" (text, number or list of strings) when these give
/// the stored bytes exactly; else "data" is null and "hex" has the bytes. The number of a REG_QWORD stands in decimal
/// under "text" too, for readers that count in floating point.
void writeJson(std::ostream& stream, const Fact& fact);

/// "error"; "key", "status" and "code", "advice" and details where there are any; "exit".
std::string jsonOf(const Failure& failure);

} // namespace obregtool

#endif
