#include "app.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <unistd.h>

#include "alarm.h"
#include "complete.h"
#include "regtext/nearmiss.h"
#include "terminal.h"
#include "text.h"
#include "verbs.h"

namespace obregtool {

namespace {

const struct Verb {
    const char* pName;
    const char* pHelp;
    Shape shape;
    Run (*declare)(Arguments& arguments);
} Verbs[] = {
    {"query", "Show a key, its values and its sub-keys", Shape::List, declareQuery},
    {"add", "Make a key, or store a value", Shape::Record, declareAdd},
    {"delete", "Delete a key with all below it, or values", Shape::Record, declareDelete},
    {"export", "Write a key with all below it as .reg text", Shape::Record, declareExport},
    {"import", "Carry out what .reg text says", Shape::Record, declareImport},
    {"copy", "Copy a key's values", Shape::Record, declareCopy},
    {"compare", "Show how the values of two keys differ", Shape::List, declareCompare},
    {"find", "Find text in names and data", Shape::List, declareFind},
    {"rename", "Give a key, or a value, another name", Shape::Record, declareRename},
    {"move", "Move a key with all below it, or a value", Shape::Record, declareMove},
    {"tree", "Draw the keys below a key", Shape::List, declareTree},
    {"info", "Show a key's figures", Shape::Record, declareInfo},
    {"watch", "Show what changes, while it changes", Shape::Stream, declareWatch},
    {"wait", "Wait until a value is there, or is what it should be, and print it", Shape::Record, declareWait},
    {"log", "Show what has changed, when, and who did it", Shape::List, declareLog},
    {"blame", "Show who set each value of a key last", Shape::List, declareBlame},
    {"undo", "Take changes back", Shape::Record, declareUndo},
    {"shared", "Tell how it stands with what machines share, or wait until all is here", Shape::List, declareShared},
    {"ping", "Measure how fast the daemon answers", Shape::Record, declarePing},
    {"get", "Print the data of values", Shape::Record, declareGet},
    {"set", "Store one value", Shape::Record, declareSet},
    {"ls", "List the sub-keys and values of a key", Shape::List, declareLs},
    {"rm", "Delete a key with all below it, or one value: short for delete", Shape::Record, declareRm},
};

constexpr const char* CompleteVerb = "__complete"; // for the shells, see packaging/completions
constexpr const char* HelpVerb = "help";
constexpr double CompletionSeconds = 2;

struct Common {
    bool json = false;
    std::string colour = "auto";
    double timeout = 0;
    bool wide = false;
};

void addCommon(Arguments& arguments, Common& common)
{
    arguments.flag("--json", common.json, "JSON on standard output; errors as JSON on standard error");
    arguments.choice("--color", common.colour, "WHEN", {"auto", "always", "never"},
                     "auto; never; always: as on a terminal, even in a pipe");
    arguments.flag("--wide", common.wide, "On a terminal: data in full, however wide the lines become");
    arguments.seconds("--timeout", common.timeout, 0,
                      "Give up after that many seconds; watch, ping: without an answer; 0: never");
}

Output makeOutput(const Common& common, Shape shape)
{
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    const char* const pNoColor = getenv("NO_COLOR");
    const char* const pTerm = getenv("TERM");
    const bool wanted = (pNoColor == nullptr || *pNoColor == '\0') && (pTerm == nullptr || strcmp(pTerm, "dumb") != 0);
    const bool always = common.colour == "always";
    const Form form = common.json ? Form::Json : terminal || always ? Form::Terminal : Form::Plain;
    return {form, always || (common.colour == "auto" && terminal && wanted), shape,
            common.wide ? Output::Unlimited : terminalWidth()};
}

int runVerb(const Common& common, const Verb& verb, Shape shape, const Run& run)
{
    std::optional<Failure> failure;
    try {
        Output output = makeOutput(common, shape);
        setTimeout(common.timeout,
                   failureText(common.json, {ExitNoDaemon, "not done in time (--timeout)",
                                             "is obregd running, and not under heavy load? What was written stays, "
                                             "of what is one transaction all or nothing"}));
        const int status = run(output);
        output.finish();
        return status;
    } catch (const Failure& caught) {
        failure = caught;
    } catch (const UsageError& caught) {
        failure.emplace(ExitUsage, caught.what(), "\"obreg " + std::string(verb.pName) + " --help\" tells more");
    } catch (const std::exception& caught) {
        failure.emplace(ExitFailed, caught.what());
    }
    fflush(stdout);
    fputs(failureText(common.json, *failure).c_str(), stderr);
    return failure->exit;
}

/// A mistake in the command line, said before a verb has been chosen.
int wrongUsage(const Common& common, const std::string& what, const char* pVerb)
{
    const std::string help = pVerb != nullptr ? "\"obreg " + std::string(pVerb) + " --help\" tells more"
                                              : "\"obreg --help\" lists the verbs";
    fputs(failureText(common.json, {ExitUsage, what, help}).c_str(), stderr);
    return ExitUsage;
}

using RawWords = std::vector<const char*>;

/// The number of the first word that is no option, where the verb belongs; the number of words when there is none.
size_t placeOfVerb(const RawWords& words)
{
    size_t i = 1;
    while (i < words.size() && words[i][0] == '-')
        i += strcmp(words[i], "--color") == 0 || strcmp(words[i], "--timeout") == 0 ? 2 : 1;
    return std::min(i, words.size());
}

/// The words as the grammar has them: no -- in front of the verb, and "help" as the option.
RawWords plainWords(int argc, const char* const* argv)
{
    RawWords words(argv, argv + argc);
    const auto isMark = [](const char* pWord) { return strcmp(pWord, "--") == 0; };
    const auto verb = [&words] { return words.begin() + static_cast<std::ptrdiff_t>(placeOfVerb(words)); };
    if (const auto mark = std::find_if(words.begin(), verb(), isMark); mark != verb())
        words.erase(mark);
    if (const auto help = verb(); help != words.end() && strcmp(*help, HelpVerb) == 0) {
        auto next = words.erase(help);
        while (next != words.end() && strcmp(*next, HelpVerb) == 0)
            next = words.erase(next);
        words.insert(next == words.end() ? next : next + 1, "--help");
    }
    return words;
}

bool isVerb(const char* pName)
{
    return std::any_of(std::begin(Verbs), std::end(Verbs),
                       [pName](const Verb& verb) { return strcmp(verb.pName, pName) == 0; });
}

std::string noSuchVerb(const char* pName)
{
    std::vector<std::string> names = {HelpVerb};
    for (const Verb& verb : Verbs)
        names.emplace_back(verb.pName);
    return "there is no verb \"" + escaped(pName, Escape::Name) + '"' + didYouMean(pName, names);
}

constexpr const char* Footer =
    "Keys are written HKLM/Software/Acme or 'HKLM\\Software\\Acme'; HKCR, HKCU, HKLM, HKU, HKPD and the long names "
    "are known.\n"
    "In a pipe each fact is a line of fields separated by tabs. Names are written as they are, with control "
    "characters\n"
    "as \\xHH; in data \\\\ \\t \\n \\r \\0 and \\xHH stand for the bytes that would not be text, numbers are decimal, "
    "and\n"
    "other bytes are pairs of hexadecimal digits, with hex: in front where the type promises text or a number.\n"
    "\"obreg help VERB\" tells about a verb. Behind -- no word is an option.\n"
    "Exit status: 0 done, 1 not found or different, 2 usage, 3 no daemon, 4 refused or failed, 5 a malformed file,\n"
    "6 a condition did not hold, 7 the time of a wait was up, 130 interrupted.";

} // namespace

int runTool(int argc, const char* const* argv)
{
    CommandLine commandLine("Looks at and changes the registry.", "obreg", Footer);
    Common common;
    addCommon(commandLine.common(), common);
    std::vector<Run> runs;
    std::vector<VerbWords> verbWords;
    for (const Verb& verb : Verbs) {
        Arguments& arguments = commandLine.addVerb(verb.pName, verb.pHelp);
        addCommon(arguments, common);
        runs.push_back(verb.declare(arguments));
        verbWords.push_back({verb.pName, &arguments});
    }
    if (argc > 1 && strcmp(argv[1], CompleteVerb) == 0) {
        setTimeout(CompletionSeconds, "");
        for (const std::string& word : candidates(commandLine.common(), verbWords, {argv + 2, argv + argc}))
            puts(word.c_str());
        return ExitDone;
    }
    const RawWords words = plainWords(argc, argv);
    const size_t place = placeOfVerb(words);
    const char* const pVerb = place < words.size() ? words[place] : nullptr;
    try {
        if (pVerb != nullptr && !isVerb(pVerb))
            throw UsageError(noSuchVerb(pVerb));
        const std::optional<size_t> chosen = commandLine.parse(static_cast<int>(words.size()), words.data());
        if (!chosen)
            return ExitDone;
        const bool preview = verbWords[*chosen].pArguments->given("--dry-run");
        return runVerb(common, Verbs[*chosen], preview ? Shape::List : Verbs[*chosen].shape, runs[*chosen]);
    } catch (const UsageError& error) {
        const auto isJson = [](const char* pWord) { return strcmp(pWord, "--json") == 0; };
        common.json = std::any_of(argv, argv + argc, isJson); // parsing did not come that far
        return pVerb == nullptr ? wrongUsage(common, "a verb is missing", nullptr)
                                : wrongUsage(common, error.what(), isVerb(pVerb) ? pVerb : nullptr);
    }
}

} // namespace obregtool
