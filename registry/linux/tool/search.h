// Looking for text: a part of it whatever its case, or a regular expression. Owned and called by one thread.
#ifndef OBREG_TOOL_SEARCH_H
#define OBREG_TOOL_SEARCH_H

#include <memory>
#include <regex.h>
#include <string>
#include <string_view>

#include <obreg/value.hpp>

namespace obregtool {

class Search {
public:
    /// A regular expression is an extended one of POSIX, and sees the first 16 KiB of each text. Throws UsageError when
    /// it is none.
    Search(const std::string& text, bool regex);

    bool matches(std::string_view text) const;
    /// Strings each by itself, numbers as their decimal digits, other bytes as pairs of hexadecimal digits; strings
    /// that are not ended as they should be as both.
    bool matches(const obreg::Value& value) const;

private:
    bool matchesHex(const std::string& digits) const;

    std::string m_text; // in small letters
    std::unique_ptr<regex_t, void (*)(regex_t*)> m_pRegex;
};

} // namespace obregtool

#endif
