// What a terminal can show: how wide a text is on it, how much of one fits; and what Unicode says of characters. Any
// thread.
#ifndef OBREG_TOOL_TERMINAL_H
#define OBREG_TOOL_TERMINAL_H

#include <locale.h>
#include <string>
#include <string_view>

namespace obregtool {

/// While there is one, its thread knows the characters of Unicode, whatever the user's locale.
class UnicodeLocale {
public:
    UnicodeLocale();
    ~UnicodeLocale();
    UnicodeLocale(const UnicodeLocale&) = delete;
    UnicodeLocale& operator=(const UnicodeLocale&) = delete;

private:
    locale_t m_before = nullptr;
};

/// Whether the user's locale says that text is UTF-8.
bool isUtf8Locale();

/// The columns of standard output; 0 when it is no terminal, or one that does not tell.
size_t terminalWidth();

/// How many columns a text takes: two for a wide character, none for one that combines with the one before it.
size_t columns(std::string_view text);

/// The text, or as much of it as fits into that many columns with a mark that it was cut.
std::string cutToFit(const std::string& text, size_t width);

/// Text in small letters, of any script: two texts that differ in case only become the same.
std::string lowerCaseText(std::string_view text);

} // namespace obregtool

#endif
