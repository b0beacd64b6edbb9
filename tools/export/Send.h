#ifndef METRICS_TOOLS_EXPORT_SEND_H
#define METRICS_TOOLS_EXPORT_SEND_H

#include "Collector.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Metrics::tools {

struct SendOptions {
    std::vector<std::string> paths;
    CollectorOptions collector;
    std::string service;
    std::string host;
    /// Goes along with files that are being written until SIGINT, SIGTERM or SIGHUP, and waits for
    /// a collector that is away for as long as it takes.
    bool isFollowing = false;
    double patience = 60; ///< seconds for which a request is sent again, when it is not following
};

struct SendResult {
    std::uint64_t runs = 0;       ///< that could be read
    std::uint64_t spans = 0;      ///< that the collector has accepted
    std::uint64_t sentBefore = 0; ///< spans that were left out
    std::uint64_t rejected = 0;   ///< spans that it has not
    std::uint64_t requests = 0;   ///< that were accepted, if in part
    bool isComplete = true;       ///< all that was to be sent was, accepted or not
};

/// Sends the spans of runs to a collector. What it has accepted, and what it has rejected for good,
/// is remembered beside each run, so that it is not sent again. Memory is bounded: while the
/// collector is away, the file waits.
///
/// While it follows, the signals that end it are blocked in the whole process.
/// @param problem is told what goes wrong, by one thread at a time.
/// @throws std::runtime_error for what can never work, such as a URL that is none.
SendResult Send(const SendOptions& options, const std::function<void(const std::string&)>& problem);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_SEND_H
