// What a shell may offer for the word that is being typed.
#ifndef OBREG_TOOL_COMPLETE_H
#define OBREG_TOOL_COMPLETE_H

#include <string>
#include <vector>

#include "arguments.h"

namespace obregtool {

struct VerbWords {
    std::string name;
    const Arguments* pArguments;
};

/// The candidates for the last of the words behind the tool's name: verbs, options of the verb, keys, names of values.
/// None where a file belongs, and none when no daemon answers. Never throws what the daemon says.
std::vector<std::string> candidates(const Arguments& common, const std::vector<VerbWords>& verbs,
                                    const std::vector<std::string>& words);

} // namespace obregtool

#endif
