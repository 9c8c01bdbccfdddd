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
    if (const auto* pText = std::get_if<std::string>(&meaning))
        return matches(*pText);
    if (const auto* pNumber = std::get_if<uint64_t>(&meaning))
        return matches(std::to_string(*pNumber));
    if (const auto* pList = std::get_if<obreg::StringList>(&meaning)) {
        for (const std::string& one : *pList)
            if (matches(one))
                return true;
        return false;
    }
    return matchesHex(hexOf(value.data));
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
