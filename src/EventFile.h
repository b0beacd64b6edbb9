#ifndef METRICS_SRC_EVENT_FILE_H
#define METRICS_SRC_EVENT_FILE_H

#include "WriterDoor.h"

#include <metrics/MetricsEvent.h>
#include <metrics/MetricsFileError.h>

#include <chrono>

namespace Metrics::detail {

/// Where a client puts events: written by the delivery thread, closed by a thread of the host.
class EventFile {
public:
    virtual ~EventFile() = default;
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    /// Delivery thread only: puts the event in, unless the file is closed.
    /// @throws what Write throws
    void Add(const MetricsEvent& event) {
        if (!m_door.Enter())
            return;
        const Leaving leaving{*this};
        Write(event);
    }

    /// Delivery thread only: no event comes for the time being.
    void EndBatch() noexcept {
        if (!m_door.Enter())
            return;
        const Leaving leaving{*this};
        Complete();
    }

    /// Afterwards nothing is written any more, also by a delivery thread that was given up: a write
    /// that does not return is the last one, and the file is closed behind it.
    /// @return false when one was in progress at the deadline.
    bool CloseUntil(std::chrono::steady_clock::time_point deadline) {
        Stop(deadline);
        return m_door.CloseUntil(deadline, [this] { Finish(); });
    }

    /// Safe from any thread at any time, as is GetFirstError.
    virtual bool HasFailed() const noexcept = 0;
    /// @throws std::bad_alloc
    virtual MetricsFileError GetFirstError() const = 0;

protected:
    EventFile() = default;

    virtual void Write(const MetricsEvent& event) = 0;
    /// Has all that was put in reach the file.
    virtual void Complete() noexcept = 0;
    /// Called by the host's thread while another may be writing: what takes long is to be left.
    virtual void Stop(std::chrono::steady_clock::time_point deadline) noexcept = 0;
    /// The end, on whichever thread is last; what may be left is, once that deadline is over.
    virtual void Finish() noexcept = 0;

private:
    struct Leaving {
        EventFile& file;
        ~Leaving() {
            file.m_door.Leave([this] { file.Finish(); });
        }
    };

    WriterDoor m_door;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_EVENT_FILE_H
