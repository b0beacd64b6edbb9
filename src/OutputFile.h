#ifndef METRICS_SRC_OUTPUT_FILE_H
#define METRICS_SRC_OUTPUT_FILE_H

#include <metrics/MetricsFileError.h>

#include <atomic>
#include <string>
#include <string_view>

namespace Metrics::detail {

/// A file that is written to its end, without a buffer of ours: what was written is there when the
/// process is killed, and a forked child has nothing to write a second time. After the first
/// failure nothing more is written.
///
/// Thread-safety: one thread at a time for each object; Stop and what asks for errors are safe from
/// any thread at any time.
class OutputFile {
public:
    /// Creates the file or empties it; see IsOpen. Not inherited by programs that the host starts.
    ///
    /// Every write goes to the end, wherever other writers have come to meanwhile, and even when
    /// the file was truncated under us. A regular file that is this process's standard output or
    /// error is written through that descriptor, so that neither overwrites the other, and is not
    /// emptied: what the host has written there is not ours to erase.
    explicit OutputFile(std::string path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool IsOpen() const noexcept { return m_file >= 0; }

    /// Writes all of the bytes, in one write(2) when the system takes them.
    void Write(std::string_view bytes) noexcept;

    /// The same on a thread of the host, to which a failure must not send SIGPIPE or SIGXFSZ.
    void WriteOnHostThread(std::string_view bytes) noexcept;

    /// Has Write begin no further write(2).
    void Stop() noexcept { m_stopped.store(true, std::memory_order_relaxed); }

    void Close() noexcept;

    bool HasFailed() const noexcept { return m_error.load(std::memory_order_relaxed) != 0; }
    /// @throws std::bad_alloc
    MetricsFileError GetFirstError() const;

private:
    void Open();
    void Fail(int error) noexcept;
    void FailInWrite(int error) noexcept;

    const std::string m_path;
    int m_file = -1;
    std::atomic<bool> m_stopped{false};
    std::atomic<int> m_error{0}; // relaxed: a number for itself
};

} // namespace Metrics::detail

#endif // METRICS_SRC_OUTPUT_FILE_H
