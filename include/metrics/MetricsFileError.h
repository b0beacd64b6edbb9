#ifndef METRICS_FILE_ERROR_H
#define METRICS_FILE_ERROR_H

#include <string>

namespace Metrics {

/// What went wrong first with the file of a client, such as a full disk.
///
/// Thread-safety: one thread at a time for each object.
struct MetricsFileError {
    int error = 0;    ///< As in errno(3): ENOSPC, say. 0: nothing went wrong.
    std::string path; ///< The file's, as it was given; empty when nothing went wrong.

    /// Whether something went wrong.
    explicit operator bool() const noexcept { return error != 0; }
};

} // namespace Metrics

#endif // METRICS_FILE_ERROR_H
