#ifndef METRICS_TIMER_H
#define METRICS_TIMER_H

#include <metrics/MetricsExport.h>

#include <cstdint>

namespace Metrics {

/// Nanoseconds of the steady clock since the library was loaded. Exact for the first 104 days,
/// then rounded to what a double holds. Never runs backwards. See clock_gettime(2).
///
/// Thread-safety: safe from any thread at any time.
/// Cost: one clock read; takes no lock and allocates nothing.
METRICS_EXPORT std::uint64_t AppUpTime() noexcept;

/// The wall clock: whole seconds since 1970-01-01 00:00:00 UTC, and the microseconds within that
/// second, 0 to 999999. Neither pointer may be null. See gettimeofday(2).
///
/// Thread-safety: safe from any thread at any time.
/// Cost: one clock read; takes no lock and allocates nothing.
METRICS_EXPORT void CurrentUnixTime(std::uint64_t* seconds, std::uint32_t* microseconds) noexcept;

} // namespace Metrics

#endif // METRICS_TIMER_H
