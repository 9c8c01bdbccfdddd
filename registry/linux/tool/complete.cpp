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

Words options(const CLI::App& verb)
{
    Words all;
    for (const CLI::Option* const pOption : verb.get_options())
        for (const std::string& name : pOption->get_lnames())
            all.push_back("--" + name);
    return all;
}

/// The names of the verb's positional arguments, in order.
Words positionals(const CLI::App& verb)
{
    Words all;
    for (const CLI::Option* const pOption : verb.get_options())
        if (pOption->get_positional())
            all.push_back(pOption->get_name(true));
    return all;
}

/// Candidates for the last word, behind a verb and what was given to it.
Words argument(const CLI::App& verb, const Words& words)
{
    const std::string& word = words.back();
    Words given;                        // positional arguments
    const CLI::Option* pOpen = nullptr; // the option whose value the next word is
    for (size_t i = 1; i + 1 < words.size(); ++i) {
        if (pOpen != nullptr) {
            pOpen = nullptr;
        } else if (words[i].size() > 1 && words[i][0] == '-') {
            pOpen = verb.get_option_no_throw(words[i]);
            if (pOpen != nullptr && pOpen->get_type_size() == 0) // a flag
                pOpen = nullptr;
        } else {
            given.push_back(words[i]);
        }
    }
    if (pOpen != nullptr)
        return pOpen->check_lname("value") && !given.empty() ? valueNames(given[0]) : Words();
    if (!word.empty() && word[0] == '-')
        return options(verb);
    const Words names = positionals(verb);
    const std::string name = given.size() < names.size() ? names[given.size()] : "";
    if (name == "KEY" || name == "FROM" || name == "TO")
        return keys(word);
    return name == "NAME" ? valueNames(given[0]) : Words();
}

} // namespace

std::vector<std::string> candidates(const CLI::App& app, const std::vector<std::string>& words)
{
    Words all;
    if (words.empty())
        return all;
    try {
        for (const CLI::App* const pVerb : app.get_subcommands({})) {
            if (words.size() == 1)
                all.push_back(pVerb->get_name());
            else if (pVerb->get_name() == words[0])
                all = argument(*pVerb, words);
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
