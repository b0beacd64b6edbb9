#ifndef METRICS_SRC_TRACE_FILE_H
#define METRICS_SRC_TRACE_FILE_H

#include "EventFile.h"
#include "TraceFormat.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace Metrics::detail {

/// A trace in the making: a folder with a description and a row of files, each a row of packets.
///
/// Events are gathered in memory, and go out as one packet when it is full, when no more come for
/// the time being, and when it is 100 ms old. At any moment, also that at which the process is
/// killed in the middle of a write, each file is a row of whole packets from its first to its last
/// byte. This is how:
///
///     | packet | packet | last packet, and all that is unused as its padding |
///     |        |        |        | new one, being written     . . . . . . . .|
///     | packet | packet | packet | now the last one, and the rest its padding|
///
/// 1. A file has its full size, which takes no room on the disk, and one packet before it gets its
///    name.
/// 2. A packet is written into the padding of the one before, where nobody looks.
/// 3. Then the size of the one before is shortened, by one write of eight aligned bytes.
///
/// Thread-safety: as EventFile says.
class TraceFile final : public EventFile {
public:
    /// Makes the folder and the description, see IsOpen. A kept size of 0 keeps everything.
    TraceFile(std::string folder, std::uint64_t keptSize);
    ~TraceFile() override;

    bool IsOpen() const noexcept { return m_isOpen; }
    bool HasFailed() const noexcept override;
    MetricsFileError GetFirstError() const override;
    std::uint64_t Discarded() const noexcept { return m_discarded.load(std::memory_order_relaxed); }

private:
    struct Part {
        std::string name;
        std::uint64_t size;
    };

    void Write(const MetricsEvent& event) override;
    void Complete() noexcept override { FinishPacket(); }
    void Stop(std::chrono::steady_clock::time_point deadline) noexcept override {
        m_deadline.store(deadline, std::memory_order_relaxed);
    }
    void Finish() noexcept override;

    int Prepare();
    bool IsOurs() const;
    int RemoveOldTrace();
    int WriteDescription();

    bool Fits(std::uint64_t clock, std::uint64_t lag, std::int64_t wall,
              std::size_t room) const noexcept;
    void BeginPacket(std::uint64_t clock, std::uint64_t lag, std::int64_t wall, std::size_t room);
    void FinishPacket() noexcept;
    bool WritePacket(std::size_t size);
    bool BeginPart(std::size_t size);
    bool MakeRoom(std::uint64_t size);
    bool WriteAt(int file, std::uint64_t offset, const void* bytes, std::size_t size) noexcept;
    int Trim() noexcept;
    bool Fail(int error) noexcept;

    const std::string m_folder;
    const std::uint64_t m_keptSize;
    std::uint64_t m_partSize;
    TraceUuid m_uuid{};
    int m_directory = -1;
    bool m_isOpen = false;
    std::atomic<int> m_error{0};               // relaxed: a number for itself
    std::atomic<std::uint64_t> m_discarded{0}; // the same
    // Of the end; the same.
    std::atomic<std::chrono::steady_clock::time_point> m_deadline{};

    // The packet in the making.
    std::unique_ptr<char[]> m_packet;
    std::size_t m_capacity = 0;
    char* m_out = nullptr;
    TracePacketHeader m_header{};
    std::uint64_t m_events = 0;
    std::uint64_t m_clock = 0; // of the last event; never goes back
    std::int64_t m_begun = 0;  // steady clock, nanoseconds

    // The newest file.
    int m_file = -1;
    std::uint64_t m_size = 0;       // its
    std::uint64_t m_lastPacket = 0; // where that begins
    std::uint64_t m_end = 0;        // of the last packet
    std::uint64_t m_partNumber = 0;

    std::deque<Part> m_parts; // oldest first
    std::uint64_t m_total = 0;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_TRACE_FILE_H
