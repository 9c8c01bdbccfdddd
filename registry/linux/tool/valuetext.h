// A value's type and data as people write and read them. Pure functions; any thread.
#ifndef OBREG_TOOL_VALUETEXT_H
#define OBREG_TOOL_VALUETEXT_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <obreg/registry.hpp>

#include "regtext/meaning.h"

namespace obregtool {

using namespace regtext;

/// "REG_SZ"; a type without a name as "0x00000020".
std::string typeName(UINT32 type);
/// REG_SZ, SZ, any case, or a number. Throws UsageError.
UINT32 typeArgument(const std::string& text);

/// The names of all types, for help and messages.
std::string typeNames();

/// A value from what was written on the command line: one text for each --data. Throws UsageError.
obreg::Value valueOfArguments(UINT32 type, const std::vector<std::string>& data);

// How data are shown. What says nothing is written as pairs of hexadecimal digits, where its type promises more with
// "hex:" in front. Two values of one type never look alike.

using TakeText = std::function<void(std::string_view)>;

/// In one line: text as escaped() gives it (several strings with \0 between), numbers in decimal. In pieces.
void writeData(const obreg::Value& value, const TakeText& take);
/// The same for a person: strings of a list in quotes, numbers also in hexadecimal; of other bytes that many, the first
/// of which is at `from`, when there are more.
inline constexpr size_t ShownBytes = 32;
std::string shownData(const obreg::Value& value, size_t mostBytes = ShownBytes, size_t from = 0);
/// Data by itself for `get`: strings without escapes, several on a line each. False when it took "hex:".
bool writeBare(const obreg::Value& value, const TakeText& take);
/// For two values: the byte from which shownData has to begin to show a difference.
size_t firstToShow(const obreg::Value& a, const obreg::Value& b);

} // namespace obregtool

#endif
