#include "complete.h"

#include <algorithm>

#include "errors.h"
#include "readtree.h"
#include "text.h"

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
    for (const obreg::SubKey& subKey : readKey(path.open(), path, Read::SubKeys).subKeys)
        all.push_back(parent + separator + subKey.name + separator);
    return all;
}

Words valueNames(const std::string& key)
{
    const KeyPath path = keyArgument(key);
    Words all;
    for (const ValueEntry& value : readKey(path.open(), path, Read::Values).values)
        all.push_back(isUnnamed(value.name) ? "@" : value.name);
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

/// Candidates for the last word, behind a verb and what was given to it.
Words argument(const Arguments& verb, const Words& words)
{
    const std::string& word = words.back();
    Words given;                              // positional arguments
    const Arguments::Option* pOpen = nullptr; // the option whose value the next word is
    for (size_t i = 1; i + 1 < words.size(); ++i) {
        if (pOpen != nullptr) {
            pOpen = nullptr;
        } else if (words[i].size() > 1 && words[i][0] == '-') {
            pOpen = findOption(verb, words[i]);
            if (pOpen != nullptr && !pOpen->takesValue)
                pOpen = nullptr;
        } else {
            given.push_back(words[i]);
        }
    }
    if (pOpen != nullptr)
        return pOpen->names.front() == "--value" && !given.empty() ? valueNames(given[0]) : Words();
    if (!word.empty() && word[0] == '-')
        return longOptions(verb);
    const Words& names = verb.positionals();
    const std::string name = given.size() < names.size() ? names[given.size()] : "";
    if (name == "KEY" || name == "FROM" || name == "TO")
        return keys(word);
    return name == "NAME" ? valueNames(given[0]) : Words();
}

} // namespace

std::vector<std::string> candidates(const std::vector<VerbWords>& verbs, const std::vector<std::string>& words)
{
    Words all;
    if (words.empty())
        return all;
    try {
        for (const VerbWords& verb : verbs) {
            if (words.size() == 1)
                all.push_back(verb.name);
            else if (verb.name == words[0])
                all = argument(*verb.pArguments, words);
        }
    } catch (const Failure&) {
        return {};
    } catch (const UsageError&) {
        return {};
    }
    keepBeginning(words.back(), all);
    return all;
}

} // namespace obregtool
