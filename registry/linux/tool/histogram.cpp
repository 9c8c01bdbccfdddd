#include "histogram.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

namespace obregtool {

namespace {

constexpr uint64_t LongestBar = 50;

double tenths(double number) { return std::round(number * 10) / 10; }

} // namespace

void Histogram::add(double microseconds)
{
    const double position = std::log2(std::max(microseconds, 1.0)) * PerDoubling;
    ++m_buckets[std::min(static_cast<size_t>(position), m_buckets.size() - 1)];
    m_least = m_count == 0 ? microseconds : std::min(m_least, microseconds);
    m_most = std::max(m_most, microseconds);
    m_sum += microseconds;
    ++m_count;
}

double Histogram::mean() const { return m_count == 0 ? 0 : tenths(m_sum / static_cast<double>(m_count)); }

double Histogram::upperEnd(size_t bucket) { return std::exp2(static_cast<double>(bucket + 1) / PerDoubling); }

double Histogram::quantile(double share) const
{
    const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(m_count)));
    uint64_t passed = 0;
    for (size_t i = 0; i < m_buckets.size(); ++i)
        if ((passed += m_buckets[i]) >= wanted)
            return std::clamp(tenths(upperEnd(i)), m_least, m_most);
    return m_most;
}

void Histogram::draw(Output& output)
{
    if (m_count == 0)
        return;
    std::array<uint64_t, Doublings> bars{};
    for (size_t i = 0; i < m_buckets.size(); ++i)
        bars[i / PerDoubling] += m_buckets[i];
    const uint64_t longest = *std::max_element(bars.begin(), bars.end());
    const auto counted = [](uint64_t bar) { return bar != 0; };
    const auto* const pFirst = std::find_if(bars.begin(), bars.end(), counted);
    const auto* const pEnd = std::find_if(bars.rbegin(), bars.rend(), counted).base();

    std::string text = m_drawn == 0 ? "" : "\33[" + std::to_string(m_drawn) + "A";
    m_drawn = 0;
    for (const auto* pBar = pFirst; pBar != pEnd; ++pBar, ++m_drawn) {
        char label[48];
        const double upTo = upperEnd(static_cast<size_t>(pBar - bars.begin()) * PerDoubling + PerDoubling - 1);
        snprintf(label, sizeof(label), "\33[K< %9.0f us %9llu ", upTo, static_cast<unsigned long long>(*pBar));
        text += label + std::string(static_cast<size_t>(*pBar * LongestBar / longest), '#') + '\n';
    }
    output.bytes(text);
    output.flush();
}

} // namespace obregtool
