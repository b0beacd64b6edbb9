#ifndef METRICS_ERROR_H
#define METRICS_ERROR_H

#include <cstdint>
#include <exception>
#include <string>

namespace Metrics {

/// A fault that the library has met and that nobody else was told of, see
/// MetricsManager::SetErrorHandler.
///
/// Thread-safety: one thread at a time for each object.
struct MetricsError {
    /// What has happened; which of the other fields hold something.
    enum class Reason : std::uint8_t {
        ConsumerThrew,    ///< `consumer`, `exception`
        ConsumerSetAside, ///< `consumer`; it is not called any more
        WriteFailed,      ///< `path`, `error`: the first failed write of a file
        LostToLimit,      ///< `count`: events that were dropped at the bound
        LostToMemory,     ///< `count`
        LostToException,  ///< `count`: a synchronous consumer threw
        LostToShutdown,   ///< `count`
        DeliveryLags      ///< `nanoseconds`: how long the oldest event has waited
    };

    Reason reason = Reason::ConsumerThrew; ///< Which of the above.
    std::string consumer;                  ///< Its name, as in MetricsConsumerStatistics.
    std::exception_ptr exception;          ///< What it threw.
    std::string path;                      ///< The file's, as it was given to the client.
    int error = 0;                         ///< As in errno(3).
    /// Lost events, or thrown exceptions, since the last call for this reason.
    std::uint64_t count = 0;
    std::uint64_t nanoseconds = 0; ///< Of the steady clock.
};

} // namespace Metrics

#endif // METRICS_ERROR_H
