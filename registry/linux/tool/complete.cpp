#include "complete.h"

#include <algorithm>
#include <sstream>

#include "errors.h"
#include "readtree.h"
#include "text.h"
#include "valuetext.h"

namespace obregtool {

namespace {

using Words = std::vector<std::string>;

void keepBeginning(const std::string& word, Words& all)
{
    const auto other = [&word](const std::string& one) {
        return compareFolded(std::string_view(one).substr(0, word.size()), word) != 0;
    };
    all.erase(std::remove_if(all.begin(), all.end(), other), all.end());
}

/// Keys below what is typed so far, with its spelling of the root and its separators. Each ends in a separator, so that
/// typing goes on from there.
Words keys(const std::string& word)
{
    const size_t first = word.find_first_of("\\/");
    Words all;
    if (first == std::string::npos) {
        for (const Root& root : roots())
            all.insert(all.end(), {std::string(root.pShortName) + '/', std::string(root.pName) + '/'});
        return all;
    }
    const char separator = word[first];
    const std::string parent = word.substr(0, word.find_last_of(separator == '/' ? "\\/" : "\\"));
    const KeyPath path = keyArgument(parent + separator);
    for (const obreg::SubKey& subKey : readKeyOnce(openKey(path), path, Read::SubKeys).subKeys)
        all.push_back(parent + separator + subKey.name + separator);
    return all;
}

Words valueNames(const std::string& key)
{
    const KeyPath path = keyArgument(key);
    Words all;
    for (const ValueEntry& value : readKeyOnce(openKey(path), path, Read::Values).values)
        all.push_back(isUnnamed(value.name) ? "@" : value.name);
    return all;
}

Words typeWords()
{
    Words all;
    std::istringstream names(typeNames());
    for (std::string name; std::getline(names >> std::ws, name, ',');)
        all.push_back(name);
    return all;
}

const Arguments::Option* findOption(const Arguments& verb, const std::string& name)
{
    for (const Arguments::Option& option : verb.options())
        if (std::find(option.names.begin(), option.names.end(), name) != option.names.end())
            return &option;
    return nullptr;
}

Words longOptions(const Arguments& verb)
{
    Words all = {"--help"};
    for (const Arguments::Option& option : verb.options())
        all.push_back(option.names.front());
    return all;
}

/// What may be the value of an option, with the positional arguments given so far.
Words optionValues(const Arguments::Option& option, const Words& given)
{
    if (option.names.front() == "--value")
        return given.empty() ? Words() : valueNames(given[0]);
    return option.names.front() == "--type" ? typeWords() : option.choices;
}

/// What was given before the last word.
struct Given {
    Words positionals;
    const Arguments::Option* pOpen = nullptr; ///< the option whose value the last word is

    void take(const Arguments& arguments, const std::string& word)
    {
        if (pOpen != nullptr) {
            pOpen = nullptr;
        } else if (word.size() > 1 && word[0] == '-') {
            pOpen = findOption(arguments, word);
            if (pOpen != nullptr && !pOpen->takesValue)
                pOpen = nullptr;
        } else {
            positionals.push_back(word);
        }
    }
};

/// Candidates for the last word, behind a verb and what was given to it.
Words argument(const Arguments& verb, const Given& given, const std::string& word)
{
    if (given.pOpen != nullptr)
        return optionValues(*given.pOpen, given.positionals);
    if (!word.empty() && word[0] == '-')
        return longOptions(verb);
    const Words& names = verb.positionals();
    const std::string name = given.positionals.size() < names.size() ? names[given.positionals.size()] : "";
    if (name == "KEY" || name == "FROM" || name == "TO")
        return keys(word);
    return name == "NAME" ? valueNames(given.positionals[0]) : Words();
}

/// Candidates for the last word, whatever it is.
Words anything(const Arguments& common, const std::vector<VerbWords>& verbs, const Words& words)
{
    const std::string& word = words.back();
    Given given;
    const VerbWords* pVerb = nullptr;
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        given.take(pVerb != nullptr ? *pVerb->pArguments : common, words[i]);
        if (pVerb != nullptr || given.positionals.empty())
            continue;
        const auto isIt = [&](const VerbWords& verb) { return verb.name == words[i]; };
        if (words[i] == "help" && i + 2 == words.size())
            break; // a verb follows
        const auto found = std::find_if(verbs.begin(), verbs.end(), isIt);
        if (found == verbs.end())
            return {};
        pVerb = &*found;
        given.positionals.clear();
    }
    if (pVerb != nullptr)
        return argument(*pVerb->pArguments, given, word);
    if (given.pOpen != nullptr || (!word.empty() && word[0] == '-'))
        return argument(common, given, word);
    Words names = given.positionals.empty() ? Words{"help"} : Words();
    for (const VerbWords& verb : verbs)
        names.push_back(verb.name);
    return names;
}

} // namespace

std::vector<std::string> candidates(const Arguments& common, const std::vector<VerbWords>& verbs,
                                    const std::vector<std::string>& words)
{
    if (words.empty())
        return {};
    try {
        Words all = anything(common, verbs, words);
        keepBeginning(words.back(), all);
        return all;
    } catch (const Failure&) {
        return {};
    } catch (const UsageError&) {
        return {};
    }
}

} // namespace obregtool
