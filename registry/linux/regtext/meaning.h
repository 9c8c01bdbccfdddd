// What a value's data say, by its type. Pure functions; any thread.
#ifndef OBREG_REGTEXT_MEANING_H
#define OBREG_REGTEXT_MEANING_H

#include <algorithm>
#include <string_view>

#include <obreg/value.hpp>

namespace regtext {

/// What data of a type are meant to be.
enum class Nature { Text, List, Number32, Number64, Bytes };
Nature natureOf(UINT32 type);

/// REG_SZ, REG_EXPAND_SZ and REG_MULTI_SZ: strings, which other systems store in UTF-16.
bool isStringType(UINT32 type);

/// What data say, when they are stored just as `set` stores what they say; else nothing but bytes. A text ends in its
/// one NUL, a list in two, and neither has others but between the strings. Views into the value.
struct Meaning {
    enum Kind { Bytes, Text, List, Number } kind = Bytes;
    std::string_view text = {}; ///< of a list: the strings with a NUL between
    uint64_t number = 0;
};
Meaning meaningOf(const obreg::Value& value);
template <class F>
void forEachString(std::string_view list, const F& f)
{
    while (!list.empty()) {
        const size_t end = std::min(list.find('\0'), list.size());
        f(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
}

} // namespace regtext

#endif
