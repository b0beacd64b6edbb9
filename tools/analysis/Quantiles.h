#ifndef METRICS_TOOLS_ANALYSIS_QUANTILES_H
#define METRICS_TOOLS_ANALYSIS_QUANTILES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <optional>
#include <vector>

namespace Metrics::tools {

using Nanoseconds = std::uint64_t;

/// How many samples the quantile of so many thousandths needs: one of them is above it.
constexpr std::size_t SamplesFor(unsigned thousandths) {
    return 1000 / (1000 - thousandths);
}

/// The nearest rank, from 1.
constexpr std::size_t Rank(std::size_t count, unsigned thousandths) {
    return std::max<std::size_t>(1, (count * thousandths + 999) / 1000);
}

/// @param sorted in rising order.
/// @return the quantile by nearest rank; nothing when there are too few samples.
inline std::optional<Nanoseconds> Quantile(const std::vector<Nanoseconds>& sorted,
                                           unsigned thousandths) {
    if (sorted.size() < SamplesFor(thousandths))
        return std::nullopt;
    return sorted[Rank(sorted.size(), thousandths) - 1];
}

/// Of one kind of piece.
struct Distribution {
    std::size_t count = 0;
    Nanoseconds sum = 0;
    Nanoseconds mean = 0;
    std::optional<Nanoseconds> p50;
    std::optional<Nanoseconds> p90;
    std::optional<Nanoseconds> p99;
    std::optional<Nanoseconds> p999;
    Nanoseconds max = 0;
};

/// Sorts the samples.
inline Distribution Distribute(std::vector<Nanoseconds>& samples) {
    std::sort(samples.begin(), samples.end());
    const Nanoseconds sum = std::accumulate(samples.begin(), samples.end(), Nanoseconds{0});
    return {samples.size(),
            sum,
            samples.empty() ? 0 : sum / samples.size(),
            Quantile(samples, 500),
            Quantile(samples, 900),
            Quantile(samples, 990),
            Quantile(samples, 999),
            samples.empty() ? 0 : samples.back()};
}

} // namespace Metrics::tools

#endif // METRICS_TOOLS_ANALYSIS_QUANTILES_H
