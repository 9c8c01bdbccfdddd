#include "regtext/nearmiss.h"

#include <algorithm>

#include "regtext/characters.h"

namespace regtext {

namespace {

constexpr size_t LongestWord = 64; // a longer one is no slip of the fingers
constexpr size_t ShortestBeginning = 3;

/// How many letters were put in, left out, replaced, or swapped with their neighbours.
size_t slips(const std::string& a, const std::string& b)
{
    std::vector<std::vector<size_t>> least(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                least[i][j] = i + j;
                continue;
            }
            const size_t replaced = least[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            least[i][j] = std::min({replaced, least[i - 1][j] + 1, least[i][j - 1] + 1});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                least[i][j] = std::min(least[i][j], least[i - 2][j - 2] + 1);
        }
    return least[a.size()][b.size()];
}

} // namespace

std::string nearMiss(std::string_view word, const std::vector<std::string>& candidates)
{
    std::string nearest;
    if (word.size() > LongestWord)
        return nearest;
    const std::string typed = folded(word);
    size_t fewest = std::max<size_t>(1, typed.size() / 3) + 1; // so many make it another word
    for (const std::string& candidate : candidates) {
        const bool begun = typed.size() >= ShortestBeginning && folded(candidate).compare(0, typed.size(), typed) == 0;
        const size_t count = begun ? 1 : slips(typed, folded(candidate));
        if (count < fewest) {
            fewest = count;
            nearest = candidate;
        }
    }
    return nearest;
}

std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates)
{
    const std::string nearest = nearMiss(word, candidates);
    return nearest.empty() ? "" : ", did you mean " + nearest + '?';
}

} // namespace regtext
