// A value's type and data as people write and read them. Pure functions; any thread.
#ifndef OBREG_TOOL_VALUETEXT_H
#define OBREG_TOOL_VALUETEXT_H

#include <string>
#include <variant>
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
/// The same for a person: numbers also in hexadecimal, other bytes up to that many.
std::string shownData(const obreg::Value& value, size_t mostBytes);
/// Data by itself for `get`: strings without escapes, several on a line each.
std::string bareData(const obreg::Value& value);

/// What data means; nothing when it is bytes and no more, or does not fit its type.
using Meaning = std::variant<std::monostate, std::string, obreg::StringList, uint64_t>;
Meaning meaningOf(const obreg::Value& value);
/// The value of that type which means this.
obreg::Value valueMeaning(UINT32 type, const Meaning& meaning);

} // namespace obregtool

#endif
