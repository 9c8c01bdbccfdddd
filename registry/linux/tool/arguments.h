// The command line's grammar: verbs, what each takes, and where it is put. A thin layer over CLI11, which only
// arguments.cpp includes; what a shell may complete is read from the same declarations.
//
// Made and used by the main thread. A CommandLine owns its verbs' Arguments; the variables that they fill must outlive
// parse().
#ifndef OBREG_TOOL_ARGUMENTS_H
#define OBREG_TOOL_ARGUMENTS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace obregtool {

/// What one verb takes, declared in the order of the help. Names are "NAME" for a positional argument, "-n,--name" for
/// an option.
class Arguments {
public:
    enum Need { Optional, Required };

    explicit Arguments(CLI::App& app) : m_app(app) {}

    void text(const char* pNames, std::string& text, const char* pHelp, Need need = Optional);
    /// The name of a value. An empty one is refused: it comes from an empty shell variable.
    void valueName(const char* pNames, std::string& name, const char* pHelp, Need need = Optional);
    void texts(const char* pNames, std::vector<std::string>& texts, const char* pHelp); ///< may be given again
    void choice(const char* pNames, std::string& text, const char* pType, const std::vector<std::string>& choices,
                const char* pHelp);
    void number(const char* pNames, uint64_t& number, const char* pHelp);
    /// A time of at least `least` seconds; the help shows the value that is there when it is not 0.
    void seconds(const char* pNames, double& seconds, double least, const char* pHelp);
    void flag(const char* pNames, bool& flag, const char* pHelp, const char* pExcludedOption = nullptr);

    /// Whether it was given, by one of its names; false for one that does not exist here. After parse().
    bool given(const char* pName) const;

    struct Option {
        std::vector<std::string> names; ///< each with its dashes
        bool takesValue;
        std::vector<std::string> choices; ///< when there are few
    };
    const std::vector<Option>& options() const { return m_options; }
    const std::vector<std::string>& positionals() const { return m_positionals; }

private:
    CLI::Option& add(CLI::Option* pOption, bool takesValue);

    CLI::App& m_app;
    std::vector<Option> m_options;
    std::vector<std::string> m_positionals;
};

class CommandLine {
public:
    CommandLine(const char* pDescription, const char* pName, const char* pFooter);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// What stands in front of every verb.
    Arguments& common() { return *m_pCommon; }
    Arguments& addVerb(const char* pName, const char* pHelp);

    /// Fills the variables and gives the number of the verb, in the order they were added; nothing when only help was
    /// wanted, and printed. Throws UsageError.
    std::optional<size_t> parse(int argc, const char* const* argv);

private:
    [[noreturn]] void throwUsage(const std::string& what, bool tooMuch) const;

    std::unique_ptr<CLI::App> m_pApp;
    std::unique_ptr<Arguments> m_pCommon;
    struct Verb {
        CLI::App* pApp;
        std::unique_ptr<Arguments> pArguments;
    };
    std::vector<Verb> m_verbs;
};

} // namespace obregtool

#endif
