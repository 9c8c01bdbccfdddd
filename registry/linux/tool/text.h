// What the tool does with text beside what .reg text needs (regtext/characters.h). Pure functions; any thread.
#ifndef OBREG_TOOL_TEXT_H
#define OBREG_TOOL_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "regtext/characters.h"

namespace obregtool {

using namespace regtext;

/// Valid UTF-8 for display: each byte that is none becomes U+FFFD.
std::string repairedUtf8(std::string_view text);
std::string upperCase(std::string text); ///< ASCII letters
/// Less than, equal to or greater than 0, as the folded texts compare byte by byte.
int compareFolded(std::string_view a, std::string_view b);

/// In single quotes where the shell would take it apart otherwise.
std::string shellQuoted(const std::string& text);

/// Digits in pairs; white space, commas and colons may stand between the pairs.
std::optional<std::string> bytesOfHex(std::string_view hex);

/// A decimal or 0x number that is at most `greatest`.
std::optional<uint64_t> numberOf(std::string_view text, uint64_t greatest);

/// "1 value", "2 values".
std::string counted(uint64_t count, const char* pWhat);

/// A time in 100 ns units since 1601 as "2026-11-22T22:18:46.1234567Z".
std::string timeText(uint64_t time);
/// The same as a clock on the wall shows it: "2026-11-22 23:18:46 +0100".
std::string localTimeText(uint64_t time);

} // namespace obregtool

#endif
