#include "terminal.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "text.h"

namespace obregtool {

namespace {

size_t columnsOf(uint32_t character)
{
    const int width = character < 0x80 ? 1 : wcwidth(static_cast<wchar_t>(character));
    return width < 0 ? 1 : static_cast<size_t>(width);
}

/// The bytes of the longest beginning that fits.
size_t fitting(std::string_view text, size_t width)
{
    const UnicodeLocale locale;
    size_t at = 0;
    for (size_t next = 0, used = 0; at < text.size(); at = next) {
        const std::optional<uint32_t> character = takeUtf8(text, next);
        next += character ? 0 : 1;
        used += columnsOf(character.value_or('?'));
        if (used > width)
            break;
    }
    return at;
}

} // namespace

UnicodeLocale::UnicodeLocale()
{
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (unicode != nullptr)
        m_before = uselocale(unicode);
}

UnicodeLocale::~UnicodeLocale()
{
    if (m_before != nullptr)
        uselocale(m_before);
}

bool isUtf8Locale()
{
    static const bool isUtf8 = [] {
        const locale_t user = newlocale(LC_CTYPE_MASK, "", nullptr);
        const bool answer = user != nullptr && std::string_view(nl_langinfo_l(CODESET, user)) == "UTF-8";
        if (user != nullptr)
            freelocale(user);
        return answer;
    }();
    return isUtf8;
}

size_t terminalWidth()
{
    winsize size{};
    return isatty(STDOUT_FILENO) == 1 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

size_t columns(std::string_view text)
{
    const UnicodeLocale locale;
    size_t count = 0;
    for (size_t at = 0; at < text.size();) {
        const std::optional<uint32_t> character = takeUtf8(text, at);
        at += character ? 0 : 1;
        count += columnsOf(character.value_or('?'));
    }
    return count;
}

std::string cutToFit(const std::string& text, size_t width)
{
    if (fitting(text, width) == text.size())
        return text;
    const std::string mark = isUtf8Locale() ? "…" : "...";
    return text.substr(0, fitting(text, width - std::min(width, columns(mark)))) + mark;
}

std::string lowerCaseText(std::string_view text)
{
    const UnicodeLocale locale;
    std::string lower;
    lower.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const size_t begin = at;
        const std::optional<uint32_t> character = takeUtf8(text, at);
        if (character)
            appendUtf8(lower, static_cast<uint32_t>(towlower(static_cast<wint_t>(*character))));
        else
            lower += text[begin];
        at += character ? 0 : 1;
    }
    return lower;
}

} // namespace obregtool
