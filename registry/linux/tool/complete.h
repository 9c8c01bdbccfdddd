// What a shell may offer for the word that is being typed.
#ifndef OBREG_TOOL_COMPLETE_H
#define OBREG_TOOL_COMPLETE_H

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <string>
#include <vector>

namespace obregtool {

/// The candidates for the last of the words behind the tool's name: verbs, options of the verb, keys, names of values.
/// None where a file belongs, and none when no daemon answers. Never throws what the daemon says.
std::vector<std::string> candidates(const CLI::App& app, const std::vector<std::string>& words);

} // namespace obregtool

#endif
