// How often a test does a thing again: a little in ./check, more in ./torture, less under a sanitizer.
#ifndef OBREG_TESTS_SCALE_H
#define OBREG_TESTS_SCALE_H

#include <algorithm>
#include <cstdlib>

#ifdef OBREG_SANITIZED
inline constexpr int Slower = 5;
#else
inline constexpr int Slower = 1;
#endif

/// The count for ./check, times the environment's OBREG_TORTURE; at least 1.
inline int scaled(int count)
{
    const char* const pFactor = std::getenv("OBREG_TORTURE");
    const int factor = pFactor != nullptr ? std::atoi(pFactor) : 1;
    return std::max(1, count * std::max(1, factor) / Slower);
}

#endif
