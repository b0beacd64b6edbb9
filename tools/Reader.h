#ifndef METRICS_TOOLS_READER_H
#define METRICS_TOOLS_READER_H

#include "Event.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Metrics::tools {

/// A file that is none of ours, or that cannot be read.
class ReadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What could not be used of a file.
struct Damage {
    std::vector<std::uint64_t> unreadableLines; ///< the header is line 1
    bool truncated = false;                     ///< the last line has no line feed
};

/// Yields the events of one recording, in the order in which they were queued.
///
/// Thread-safety: one thread at a time for each object.
class Reader {
public:
    Reader() = default;
    virtual ~Reader() = default;
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    /// Replaces what the batch holds with the next events.
    /// @return false when there are none any more, or, of a file that is still being written, none
    /// yet.
    /// @throws ReadError
    virtual bool Read(EventBatch& batch) = 0;

    /// Of what was read so far.
    virtual Damage GetDamage() const = 0;

    /// @return how much of the file was read, from 0 to 1; negative when that is not known.
    virtual double Progress() const = 0;
};

/// Reads the raw client's CSV file, of which docs/csv-format.md tells; "-" is the standard input.
/// @param isFollowed whether Read() does without what a pipe does not have yet.
/// @throws ReadError when it cannot be opened, or nothing near its beginning is the header or an
/// event.
std::unique_ptr<Reader> OpenCsv(const std::string& path, bool isFollowed = false);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_READER_H
