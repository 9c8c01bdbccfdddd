// Durations counted in buckets: how long requests take, without keeping each. One thread.
#ifndef OBREG_TOOL_HISTOGRAM_H
#define OBREG_TOOL_HISTOGRAM_H

#include <array>
#include <cstdint>

#include "output.h"

namespace obregtool {

class Histogram {
public:
    void add(double microseconds);

    uint64_t count() const { return m_count; }
    double least() const { return m_least; }
    double most() const { return m_most; }
    double mean() const; ///< to a tenth, as the others
    /// What that share of the durations does not exceed, to a twelfth of itself.
    double quantile(double share) const;

    /// A bar for each doubling of the time, over what was drawn before.
    void draw(Output& output);

private:
    static constexpr size_t PerDoubling = 8;
    static constexpr size_t Doublings = 32; // from 1 microsecond to more than an hour
    static double upperEnd(size_t bucket);

    std::array<uint64_t, PerDoubling * Doublings> m_buckets{};
    uint64_t m_count = 0;
    double m_sum = 0;
    double m_least = 0;
    double m_most = 0;
    size_t m_drawn = 0; // lines
};

} // namespace obregtool

#endif
