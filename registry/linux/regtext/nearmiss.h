// What somebody who mistyped a word may have meant. Pure functions; any thread.
#ifndef OBREG_REGTEXT_NEARMISS_H
#define OBREG_REGTEXT_NEARMISS_H

#include <string>
#include <string_view>
#include <vector>

namespace regtext {

/// The one of the candidates that is nearest to the word, whatever its case; empty when none is near.
std::string nearMiss(std::string_view word, const std::vector<std::string>& candidates);

/// The same as the end of a message: ", did you mean query?", or nothing.
std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates);

} // namespace regtext

#endif
