#include "arguments.h"

#include <algorithm>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include "errors.h"
#include "regtext/nearmiss.h"
#include "text.h"

namespace obregtool {

namespace {

constexpr double MostSeconds = 1e6;

bool isOption(const std::string& word) { return word.size() > 1 && word[0] == '-'; }

void addLongNames(const Arguments& arguments, std::vector<std::string>& names)
{
    for (const Arguments::Option& option : arguments.options())
        for (const std::string& name : option.names)
            if (name.size() > 2)
                names.push_back(name);
}

/// The words that nothing takes, in their order, without the mark -- and with what is behind it as plain words.
struct Unexpected {
    std::string list;
    std::string hint;
    bool hasOption = false;

    Unexpected(const std::vector<std::string>& words, const std::vector<std::string>& options)
    {
        const auto mark = std::find(words.begin(), words.end(), "--");
        for (auto word = words.begin(); word != words.end(); ++word) {
            if (word == mark)
                continue;
            list += (list.empty() ? "" : ", ") + ('"' + escaped(*word, Escape::Name) + '"');
            if (word > mark || hasOption || !isOption(*word))
                continue;
            hasOption = true;
            hint = didYouMean(word->substr(0, word->find('=')), options);
            if (hint.empty())
                hint = "; a word that begins with - and is no option goes behind --";
        }
    }
};

} // namespace

CLI::Option& Arguments::add(CLI::Option* pOption, bool takesValue)
{
    if (pOption->get_positional()) {
        m_positionals.push_back(pOption->get_name(true));
        return *pOption;
    }
    Option option{{}, takesValue, {}};
    for (const std::string& name : pOption->get_lnames())
        option.names.push_back("--" + name);
    for (const std::string& name : pOption->get_snames())
        option.names.push_back('-' + name);
    m_options.push_back(std::move(option));
    return *pOption;
}

void Arguments::text(const char* pNames, std::string& text, const char* pHelp, Need need)
{
    add(m_app.add_option(pNames, text, pHelp), true).required(need == Required);
}

void Arguments::valueName(const char* pNames, std::string& name, const char* pHelp, Need need)
{
    const auto refuseEmpty = [](const std::string& text) {
        return text.empty() ? "an empty name names no value (is a shell variable unset?); the unnamed value is @" : "";
    };
    add(m_app.add_option(pNames, name, pHelp), true).required(need == Required)->check(refuseEmpty);
}

void Arguments::texts(const char* pNames, std::vector<std::string>& texts, const char* pHelp)
{
    CLI::Option& option = add(m_app.add_option(pNames, texts, pHelp), true);
    if (!option.get_positional()) // one for each time, so that a positional argument may follow
        option.expected(1)->take_all();
}

void Arguments::choice(const char* pNames, std::string& text, const char* pType,
                       const std::vector<std::string>& choices, const char* pHelp)
{
    add(m_app.add_option(pNames, text, pHelp), true).check(CLI::IsMember(choices))->type_name(pType);
    m_options.back().choices = choices;
}

void Arguments::number(const char* pNames, uint64_t& number, const char* pHelp)
{
    const auto negative = [](const std::string& text) { // which would be taken as one near the greatest
        return text.find('-') == std::string::npos ? "" : text + " is no number of 0 or more";
    };
    add(m_app.add_option(pNames, number, pHelp), true).check(negative, "");
}

void Arguments::seconds(const char* pNames, double& seconds, double least, const char* pHelp)
{
    CLI::Option& option = add(m_app.add_option(pNames, seconds, pHelp), true);
    option.check(CLI::Range(least, MostSeconds))->type_name("SECONDS");
    if (seconds != 0)
        option.capture_default_str();
}

void Arguments::flag(const char* pNames, bool& flag, const char* pHelp, const char* pExcludedOption)
{
    CLI::Option& option = add(m_app.add_flag(pNames, flag, pHelp), false);
    if (pExcludedOption != nullptr)
        option.excludes(m_app.get_option(pExcludedOption));
}

bool Arguments::given(const char* pName) const
{
    const CLI::Option* const pOption = m_app.get_option_no_throw(pName);
    return pOption != nullptr && pOption->count() != 0;
}

CommandLine::CommandLine(const char* pDescription, const char* pName, const char* pFooter)
    : m_pApp(std::make_unique<CLI::App>(pDescription, pName)), m_pCommon(std::make_unique<Arguments>(*m_pApp))
{
    m_pApp->footer(pFooter);
    m_pApp->require_subcommand(1);
    m_pApp->set_help_all_flag("--help-all", "The help of all verbs");
    m_pApp->set_version_flag("--version", std::string(pName) + " " OBREG_VERSION, "Print the version and exit");
}

CommandLine::~CommandLine() = default;

Arguments& CommandLine::addVerb(const char* pName, const char* pHelp)
{
    CLI::App* const pVerb = m_pApp->add_subcommand(pName, pHelp);
    m_verbs.push_back({pVerb, std::make_unique<Arguments>(*pVerb)});
    return *m_verbs.back().pArguments;
}

void CommandLine::throwUsage(const std::string& what, bool tooMuch) const
{
    std::vector<std::string> options = {"--help"};
    addLongNames(*m_pCommon, options);
    bool verbChosen = false;
    for (const Verb& verb : m_verbs)
        if (verb.pApp->parsed()) {
            verbChosen = true;
            addLongNames(*verb.pArguments, options);
        }
    if (!verbChosen)
        options.insert(options.end(), {"--help-all", "--version"});
    const Unexpected unexpected(m_pApp->remaining(true), options);
    // A mistyped option explains what is missing; other words that are too much do not.
    throw UsageError(unexpected.hasOption || tooMuch ? "not expected: " + unexpected.list + unexpected.hint : what);
}

std::optional<size_t> CommandLine::parse(int argc, const char* const* argv)
{
    try {
        m_pApp->parse(argc, argv);
    } catch (const CLI::Success& help) {
        m_pApp->exit(help);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throwUsage(error.what(), dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr);
    }
    for (size_t i = 0; i < m_verbs.size(); ++i)
        if (m_verbs[i].pApp->parsed())
            return i;
    return std::nullopt;
}

} // namespace obregtool
