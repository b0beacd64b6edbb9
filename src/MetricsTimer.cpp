#include "StampClock.h"

#include <metrics/MetricsTimer.h>

#include <sys/time.h>

#include <chrono>

namespace Metrics {

namespace {

std::uint64_t Ticks() noexcept {
    static_assert(std::chrono::steady_clock::period::den == 1'000'000'000, "one tick is 1 ns");
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

struct StartTime {
    std::uint64_t value = Ticks();
};

// Taken when the library is loaded, and never written again.
[[gnu::init_priority(201)]] const StartTime g_appStartTime;
constexpr double g_tickConversion = 1.0; // ticks to nanoseconds

} // namespace

std::uint64_t detail::UpTimeAt(std::uint64_t ticks) noexcept {
    return static_cast<std::uint64_t>(static_cast<double>(ticks - g_appStartTime.value) *
                                      g_tickConversion);
}

std::uint64_t AppUpTime() noexcept {
    return detail::UpTimeAt(Ticks());
}

void CurrentUnixTime(std::uint64_t* seconds, std::uint32_t* microseconds) noexcept {
    timeval now{};
    gettimeofday(&now, nullptr); // cannot fail with a valid buffer, see gettimeofday(2)
    *seconds = static_cast<std::uint64_t>(now.tv_sec);
    *microseconds = static_cast<std::uint32_t>(now.tv_usec);
}

} // namespace Metrics
