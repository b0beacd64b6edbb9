#ifndef METRICS_TOOLS_EXPORT_CHROME_H
#define METRICS_TOOLS_EXPORT_CHROME_H

#include "Span.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Metrics::tools {

/// What of the runs goes into the file. A piece must pass all of them.
struct ChromeOptions {
    /// Pieces that lie in this time, if in part: nanoseconds since the library was loaded, in the
    /// process that did so first. Of one run these are its stamps.
    std::uint64_t from = 0;
    std::uint64_t to = never;
    std::optional<std::size_t> slowest; ///< the trees of so many requests
    std::optional<std::uint64_t> root;  ///< the tree of the context of this id
};

/// Writes all runs as one file of trace events in JSON, which Perfetto and others open. On each
/// thread its contexts and their scopes are slices, properly nested; what overlaps them, or has no
/// thread, stands on asynchronous tracks. Hand-overs are arrows.
/// @param identities of the runs, in their order.
/// @throws std::runtime_error when the file cannot be written.
void WriteChrome(const Model& model, const std::vector<RunIdentity>& identities,
                 const ChromeOptions& options, const std::string& path);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_CHROME_H
