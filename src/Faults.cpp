#include "Faults.h"

#include "StampClock.h"
#include "ThreadTable.h"

#include <cxxabi.h>

#include <exception>
#include <new>
#include <utility>

namespace Metrics::detail {

constinit Faults s_faults;

using Reason = MetricsError::Reason;

void Faults::SetHandler(Handler&& handler, unsigned int lagMilliseconds) {
    std::shared_ptr<State> state; // made before the lock is taken, the former one freed behind it
    if (handler != nullptr) {
        state = std::make_shared<State>();
        state->handler = std::move(handler);
    }
    m_lag.store(std::uint64_t{lagMilliseconds} * 1'000'000, std::memory_order_relaxed);
    {
        const korsys::MutexLock lock(m_lock);
        m_hasHandler.store(state != nullptr, std::memory_order_relaxed);
        m_state->swap(state);
    }
    const std::uint32_t seen = m_telling.Read();
    if (Section::IsInside(seen) && !t_thread.isDeliveryThread) // which may be inside of that call
        PollUntil(std::chrono::steady_clock::time_point::max(),
                  [this, seen] { return m_telling.Read() != seen; });
}

// What is noted --------------------------------------------------------------------------------

template <class Fill>
void Faults::Note(Reason reason, std::uint64_t count, Fill fill) noexcept {
    if (!HasHandler())
        return;
    const korsys::MutexLock lock(m_lock);
    if (*m_state == nullptr)
        return;
    Pending& pending = (*m_state)->pending[static_cast<std::size_t>(reason)];
    try {
        if (!pending.isThere) {
            pending.first = MetricsError();
            pending.first.reason = reason;
            fill(pending.first);
            pending.isThere = true;
        }
        pending.first.count += count;
    } catch (const std::bad_alloc&) {
        // No memory for what is to be told: the next one of the reason may be luckier.
    }
}

void Faults::NoteException(const std::string& consumer) noexcept {
    Note(Reason::ConsumerThrew, 1, [&consumer](MetricsError& error) {
        error.consumer = consumer;
        error.exception = std::current_exception();
    });
}

void Faults::NoteSetAside(const std::string& consumer) noexcept {
    Note(Reason::ConsumerSetAside, 0,
         [&consumer](MetricsError& error) { error.consumer = consumer; });
}

void Faults::NoteFailedWrite(const std::string& path, int number) noexcept {
    Note(Reason::WriteFailed, 0, [&path, number](MetricsError& error) {
        error.path = path;
        error.error = number;
    });
}

void Faults::NoteLosses(const std::array<std::uint64_t, lossReasons>& totals) noexcept {
    for (std::size_t i = 0; i < lossReasons; ++i) {
        const std::uint64_t more = totals[i] - std::exchange(m_noted[i], totals[i]);
        if (more != 0)
            Note(static_cast<Reason>(static_cast<std::size_t>(Reason::LostToLimit) + i), more,
                 [](MetricsError&) {});
    }
}

void Faults::NoteLag(std::uint64_t nanoseconds) noexcept {
    const std::uint64_t lag = m_lag.load(std::memory_order_relaxed);
    if (lag != 0 && nanoseconds > lag)
        Note(Reason::DeliveryLags, 0,
             [nanoseconds](MetricsError& error) { error.nanoseconds = nanoseconds; });
}

// What is told ---------------------------------------------------------------------------------

void Faults::TellAfter(std::uint64_t pause) {
    if (!HasHandler())
        return;
    const SectionGuard guard(m_telling);
    for (std::size_t i = 0; i < reasons; ++i) {
        std::shared_ptr<State> state;
        MetricsError error;
        {
            const korsys::MutexLock lock(m_lock);
            if (*m_state == nullptr)
                return;
            const std::uint64_t now = StampClock::Ticks();
            Pending& pending = (*m_state)->pending[i];
            if (!pending.isThere || (pending.toldAt != 0 && now - pending.toldAt < pause))
                continue;
            pending.isThere = false;
            pending.toldAt = now;
            error = std::move(pending.first);
            state = *m_state;
        }
        try {
            state->handler(error);
        } catch (abi::__forced_unwind&) {
            throw; // glibc ends the thread by it, and it must pass
        } catch (...) {}
    }
}

void Faults::Tell() {
    TellAfter(1'000'000'000);
}

void Faults::TellLast() {
    TellAfter(0);
    SetHandler(nullptr, 0);
}

void Faults::ResetLock() noexcept {
    ::new (&m_lock) korsys::Mutex;
}

} // namespace Metrics::detail
