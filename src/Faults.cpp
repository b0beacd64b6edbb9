#include "Faults.h"

#include "Lifecycle.h"
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
    std::shared_ptr<State> state; // made before the lock is taken, what is let go freed behind it
    if (handler != nullptr) {
        state = std::make_shared<State>();
        state->handler = std::move(handler);
    }
    m_lag.store(std::uint64_t{lagMilliseconds} * 1'000'000, std::memory_order_relaxed);
    {
        const korsys::MutexLock lock(m_lock);
        if (state != nullptr && m_hasEnded)
            return;
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
    std::vector<MetricsError>& waiting =
        (*m_state)->reasons[static_cast<std::size_t>(reason)].waiting;
    try {
        // What happens once to each consumer or file is kept for each.
        const bool isKept =
            waiting.empty() ||
            ((reason == Reason::ConsumerSetAside || reason == Reason::WriteFailed) &&
             waiting.size() < mostWaiting);
        if (isKept) {
            MetricsError error;
            error.reason = reason;
            fill(error);
            waiting.push_back(std::move(error));
        }
        waiting.back().count += count;
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

bool Faults::TellAfter(std::uint64_t pause) {
    bool hasTold = false;
    if (!HasHandler())
        return hasTold;
    const SectionGuard guard(m_telling);
    for (std::size_t i = 0; i < reasons; ++i) {
        std::shared_ptr<State> state;
        MetricsError error;
        {
            const korsys::MutexLock lock(m_lock);
            if (*m_state == nullptr)
                return hasTold;
            const std::uint64_t now = StampClock::Ticks();
            Pending& pending = (*m_state)->reasons[i];
            if (pending.waiting.empty() || (pending.toldAt != 0 && now - pending.toldAt < pause))
                continue;
            pending.toldAt = now;
            error = std::move(pending.waiting.front());
            pending.waiting.erase(pending.waiting.begin());
            state = *m_state;
            hasTold = true;
        }
        try {
            state->handler(error);
        } catch (abi::__forced_unwind&) {
            throw; // glibc ends the thread by it, and it must pass
        } catch (...) {}
        if (InForkedChild()) // the handler has forked; another thread may have held the lock
            return false;
    }
    return hasTold;
}

void Faults::Tell() {
    TellAfter(1'000'000'000);
}

void Faults::TellLast() {
    // All that waits; what the handler itself brings about need not be told without end.
    for (std::size_t i = 0; i < mostWaiting && TellAfter(0); ++i) {}
    if (!InForkedChild())
        Close();
}

void Faults::Close() {
    {
        const korsys::MutexLock lock(m_lock);
        m_hasEnded = true;
    }
    SetHandler(nullptr, 0);
}

void Faults::ResetLock() noexcept {
    ::new (&m_lock) korsys::Mutex;
}

} // namespace Metrics::detail
