#ifndef METRICS_TOOLS_TIMELINE_PAGE_H
#define METRICS_TOOLS_TIMELINE_PAGE_H

#include "Timeline.h"

#include <string>

namespace Metrics::tools {

/// @return one HTML file that shows the timeline: page.html, with the timeline packed inside. It
/// needs no network and no server.
/// @throws std::runtime_error when packing fails
std::string TimelinePage(const Timeline& timeline);

/// Writes that page into a file; "-" is the standard output.
/// @throws std::runtime_error when that fails
void WriteTimelinePage(const Timeline& timeline, const std::string& path);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_TIMELINE_PAGE_H
