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
        const Pausing pausing{*this};
        Gather(event);
    }

    /// The same for one of several events in a row; Pause comes behind the last one. To go in and
    /// out for each of them would take longer than to put it in.
    void Gather(const MetricsEvent& event) {
        if (!m_isInside)
            m_isInside = m_door.Enter();
        else if (m_door.IsClosing()) [[unlikely]]
            Pause();
        if (m_isInside)
            Write(event);
    }

    /// Delivery thread only: behind the last Gather for now, before anything that may take long.
    void Pause() noexcept {
        if (m_isInside)
            m_door.Leave([this] { Finish(); });
        m_isInside = false;
    }

    /// Delivery thread only: no event comes for the time being.
    void EndBatch() noexcept {
        if (m_isInside || m_door.Enter()) {
            m_isInside = true;
            Complete();
            Pause();
        }
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
    struct Pausing {
        EventFile& file;
        ~Pausing() { file.Pause(); }
    };

    WriterDoor m_door;
    bool m_isInside = false; // the delivery thread is
};

} // namespace Metrics::detail

#endif // METRICS_SRC_EVENT_FILE_H
