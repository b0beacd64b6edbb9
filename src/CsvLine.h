#ifndef METRICS_SRC_CSV_LINE_H
#define METRICS_SRC_CSV_LINE_H

#include <metrics/MetricsEvent.h>

#include <string>
#include <string_view>

namespace Metrics::detail {

/// The first line of every file, with its line feed.
inline constexpr std::string_view csvHeader =
    "timestamp,datetime,context_id,event_type,param1,param2\n";

/// Renders events as lines of the CSV file, each with its line feed; see docs/csv-format.md. The
/// bytes do not depend on any locale.
///
/// Thread-safety: one thread at a time for each object.
class CsvLine {
public:
    /// The event's line, valid until the next call.
    /// Cost: allocates only for a line longer than any before.
    /// @throws std::bad_alloc
    std::string_view Render(const MetricsEvent& event);

    /// Gives the memory of an unusually long line back.
    void Shrink() noexcept;

private:
    std::string m_line; // as large as the longest line so far could have been
};

} // namespace Metrics::detail

#endif // METRICS_SRC_CSV_LINE_H
