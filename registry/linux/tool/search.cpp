#include "search.h"

#include <algorithm>

#include "errors.h"
#include "terminal.h"
#include "text.h"
#include "valuetext.h"

namespace obregtool {

namespace {

/// A regular expression can take time by the square of what it is given.
constexpr size_t MostForRegex = size_t{16} * 1024;

void freeRegex(regex_t* pRegex)
{
    regfree(pRegex);
    delete pRegex;
}

} // namespace

Search::Search(const std::string& text, bool regex) : m_text(lowerCaseText(text)), m_pRegex(nullptr, freeRegex)
{
    if (!regex)
        return;
    const UnicodeLocale locale;
    auto pRegex = std::make_unique<regex_t>();
    const int status = regcomp(pRegex.get(), text.c_str(), REG_EXTENDED | REG_ICASE | REG_NOSUB);
    if (status != 0) {
        char why[128];
        regerror(status, pRegex.get(), why, sizeof(why));
        throw UsageError("regular expression \"" + escaped(text, Escape::Name) + "\": " + why);
    }
    m_pRegex.reset(pRegex.release());
}

bool Search::matches(std::string_view text) const
{
    if (!m_pRegex)
        return lowerCaseText(text).find(m_text) != std::string::npos;
    const UnicodeLocale locale;
    regmatch_t range{0, static_cast<regoff_t>(std::min(text.size(), MostForRegex))};
    return regexec(m_pRegex.get(), text.data(), 0, &range, REG_STARTEND) == 0;
}

bool Search::matches(const obreg::Value& value) const
{
    const Meaning meaning = meaningOf(value);
    bool found = false;
    switch (meaning.kind) {
    case Meaning::Text:
        return matches(meaning.text);
    case Meaning::Number:
        return matches(std::to_string(meaning.number));
    case Meaning::List:
        forEachString(meaning.text, [&](std::string_view one) { found = found || matches(one); });
        return found;
    case Meaning::Bytes:
        if (isStringType(value.type)) // badly ended, and text all the same
            forEachString(value.data, [&](std::string_view one) { found = found || matches(one); });
        break;
    }
    return found || matchesHex(hexOf(value.data));
}

/// A text that begins in the middle of a byte does not count.
bool Search::matchesHex(const std::string& digits) const
{
    if (m_pRegex)
        return matches(digits);
    size_t at = digits.find(m_text);
    while (at != std::string::npos && at % 2 != 0)
        at = digits.find(m_text, at + 1);
    return at != std::string::npos;
}

} // namespace obregtool
