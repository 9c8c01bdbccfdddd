// A value's type and data as people write and read them. Pure functions; any thread.
#ifndef OBREG_TOOL_VALUETEXT_H
#define OBREG_TOOL_VALUETEXT_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include <obreg/registry.hpp>

namespace obregtool {

/// "REG_SZ"; a type without a name as "0x00000020".
std::string typeName(UINT32 type);
/// REG_SZ, SZ, any case, or a number. Throws UsageError.
UINT32 typeArgument(const std::string& text);

/// The names of all types, for help and messages.
std::string typeNames();

/// A value from what was written on the command line: one text for each --data. Throws UsageError.
obreg::Value valueOfArguments(UINT32 type, const std::vector<std::string>& data);

/// Data in one line: text as escaped() gives it (several strings with \0 between), numbers in decimal, other bytes as
/// pairs of digits. Data that does not fit its type is shown as bytes.
std::string dataText(const obreg::Value& value);
/// The same for a person: numbers also in hexadecimal, long bytes cut off.
std::string shownData(const obreg::Value& value);
/// Data by itself for `get`: strings without escapes, several on a line each.
std::string bareData(const obreg::Value& value);

/// Puts "type", "data" (text, number, list of strings or null) and, unless these give the stored bytes exactly, "hex".
void putValue(nlohmann::ordered_json& json, const obreg::Value& value);

/// Puts text under a name. Bytes that are no UTF-8 are replaced, and all are given as nameHex beside it.
void putText(nlohmann::ordered_json& json, const std::string& name, const std::string& text);

} // namespace obregtool

#endif
