#include "Delivery.h"

#include "Emit.h"
#include "Lifecycle.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace Metrics::detail {

namespace {

constexpr unsigned int idlePause = 100;  // ms between looks at empty queues
constexpr unsigned int batchPause = 5;   // ms in which a batch gathers
constexpr std::size_t largeBatch = 4096; // behind so many events no other one need gather
constexpr int idlePausesPerCheck = 10;   // between looks whether the process has ended but for us

constexpr std::size_t warmChunks = 128; // kept for whoever emits next: a quarter of a MiB
constexpr std::chrono::milliseconds peakHold{2000}; // how long the memory of a burst is kept
constexpr std::chrono::milliseconds peakStep{100};  // then an eighth goes back in each of these

/// Whether this thread is the only one left: `main` has ended by pthread_exit, and all others have
/// ended as well. See proc(5): the state is that of the first thread, a zombie then, which is
/// counted.
bool IsLastThread() noexcept {
    const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    std::array<char, 1024> text{};
    const ssize_t size = read(file, text.data(), text.size() - 1);
    close(file);
    const char* const name = size > 0 ? std::strrchr(text.data(), ')') : nullptr;
    char state = 0;
    long threads = 0;
    return name != nullptr &&
           std::sscanf(name + 1,
                       " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d "
                       "%*d %ld",
                       &state, &threads) == 2 &&
           state == 'Z' && threads == 2;
}

} // namespace

// Flushes --------------------------------------------------------------------------------------

std::uint64_t Flushes::Request() {
    const korsys::MutexLock lock(m_lock);
    return m_hasEnded ? 0 : ++m_requested;
}

bool Flushes::WaitUntil(std::uint64_t request, Deadline deadline) {
    korsys::MutexLock lock(m_lock);
    while (m_answered < request && !m_hasEnded)
        if (!lock.WaitUntil(m_answer, deadline))
            break;
    return m_answered >= request;
}

std::uint64_t Flushes::Take() {
    const korsys::MutexLock lock(m_lock);
    return m_requested > m_answered ? m_requested : 0;
}

void Flushes::Answer(std::uint64_t request) {
    const korsys::MutexLock lock(m_lock);
    m_answered = std::max(m_answered, request);
    m_answer.notify_all();
}

void Flushes::End() {
    const korsys::MutexLock lock(m_lock);
    m_hasEnded = true;
    m_answer.notify_all();
}

bool FlushUntil(Deadline deadline) {
    s_life.NoticeFork();
    Delivery* const delivery = FindDelivery();
    if (delivery == nullptr || !s_life.Accepts() || t_thread.isDeliveryThread || IsInsideCall())
        return false;
    const std::uint64_t now = s_stampClock.Now();
    const std::uint64_t request = delivery->GetFlushes().Request();
    if (request == 0)
        return false;
    delivery->Wake();
    // What was emitted behind the end is not delivered, though the request is answered.
    return delivery->GetFlushes().WaitUntil(request, deadline) && !delivery->EndsBefore(now);
}

// The object -----------------------------------------------------------------------------------

namespace {

alignas(Delivery) constinit std::array<std::byte, sizeof(Delivery)> s_storage{};
constinit std::atomic<Delivery*> s_delivery{nullptr};

} // namespace

Delivery* FindDelivery() noexcept {
    return s_delivery.load(std::memory_order_acquire);
}

Delivery& MakeDelivery() noexcept {
    Delivery* delivery = FindDelivery();
    if (delivery == nullptr) {
        delivery = ::new (s_storage.data()) Delivery;
        s_delivery.store(delivery, std::memory_order_release);
    }
    return *delivery;
}

// Control --------------------------------------------------------------------------------------

void Delivery::Start() {
    s_threads.SetSwept(true);
    try {
        m_thread.Start([](void* self) { static_cast<Delivery*>(self)->Run(); }, this);
    } catch (...) {
        s_threads.SetSwept(false);
        throw;
    }
}

void Delivery::EndHere() noexcept {
    const std::uint64_t now = s_stampClock.Now();
    // Release: what was published before. Relaxed: only the lowest counts.
    std::uint64_t end = m_end.load(std::memory_order_relaxed);
    while (now < end && !m_end.compare_exchange_weak(end, now, std::memory_order_release,
                                                     std::memory_order_relaxed)) {}
    Wake();
}

void Delivery::Wake() noexcept {
    m_wake.Signal();
}

bool Delivery::JoinUntil(Deadline deadline) noexcept {
    return m_stopped.WaitUntil(deadline) && m_thread.JoinUntil(deadline);
}

// The thread -----------------------------------------------------------------------------------

void Delivery::Run() {
    t_thread.isDeliveryThread = true;
    try {
        // Released right behind the call: its code may be gone later.
        if (const std::function<void()> init = std::exchange(m_init, nullptr))
            init();
    } catch (abi::__forced_unwind&) {
        throw; // glibc ends the thread by it, and it must pass
    } catch (...) {}
    int idlePauses = 0;
    while (!InForkedChild()) {
        m_wake.Reset();
        const std::uint64_t flush = m_flushes.Take();
        const std::uint64_t now = s_stampClock.Now();
        // Acquire: whoever has set it has published what it emitted before.
        const std::uint64_t end = m_end.load(std::memory_order_acquire);
        m_delivered = 0;
        LookAtMemory();
        const bool isComplete = DeliverUpTo(std::min(now, end));
        if (InForkedChild())
            return; // a consumer has forked, and this is the child
        if (isComplete && flush != 0)
            m_flushes.Answer(flush);
        if (isComplete && end <= now)
            break;
        s_threads.Sweep();
        BalanceMemory();
        const bool isIdle = isComplete && m_delivered == 0;
        if (isIdle && ++idlePauses % idlePausesPerCheck == 0 && IsLastThread()) {
            ShowShutdown();
            s_life.SwitchOff(); // the process ends when this thread does, see pthread_exit(3)
            EndHere();
        } else if (m_delivered < largeBatch) {
            // With thousands of threads the look at their queues is what costs.
            const auto gather = batchPause + static_cast<unsigned int>(s_threads.Size() / 200);
            m_wake.Wait(isIdle ? idlePause : std::min(gather, idlePause));
        }
    }
    if (!InForkedChild())
        End();
}

bool Delivery::DeliverUpTo(std::uint64_t cut) {
    try {
        m_merge.Begin(cut);
        for (ThreadRecord* record = s_threads.First(); record != nullptr; record = record->next)
            m_merge.Add(record->queue, record->owner.load(std::memory_order_relaxed));
        DeliverMerged();
    } catch (const std::bad_alloc&) {
        return false; // tried again
    }
    return true;
}

void Delivery::DeliverMerged() {
    // Nobody to deliver to: looked at after the queues were, so that whoever was registered before
    // something was emitted does not miss it.
    if (!s_consumers.HasAsynchronous()) {
        m_delivered += m_merge.Discard();
        return;
    }
    Consumers::Calls calls(s_consumers);
    m_merge.Run([this, &calls](Record& record, pid_t emitter) {
        calls.Call(m_event.Make(record), emitter);
        if (InForkedChild())
            return false;
        if (m_event.HoldsObjects()) [[unlikely]] {
            // Whoever waits for the end of a call must not wait for what is freed here.
            calls.Leave();
            m_event.Clear();
            if (InForkedChild())
                return false;
            calls.Enter();
        } else {
            m_event.Clear();
        }
        ++m_delivered;
        return true;
    });
    if (!InForkedChild())
        calls.EndBatch();
}

// Memory ---------------------------------------------------------------------------------------

void Delivery::LookAtMemory() noexcept {
    // Before the batch is delivered: at its largest.
    const std::size_t inUse = s_chunks.InUse();
    const auto now = std::chrono::steady_clock::now();
    if (inUse >= m_peak) {
        m_peak = inUse;
        m_peakAt = now;
    } else if (now - m_peakAt > peakHold + peakStep) {
        m_peak -= std::max<std::size_t>(m_peak / 8, 1);
        m_peakAt += peakStep;
    }
}

void Delivery::BalanceMemory() noexcept {
    const std::size_t inUse = s_chunks.InUse();
    const std::size_t free = s_chunks.Free();
    if (inUse + free == 0)
        return; // nothing was ever emitted, or all is cold
    if (free < warmChunks) {
        s_chunks.KeepWarm(warmChunks);
        return;
    }
    const std::size_t wanted = std::max(warmChunks, m_peak > inUse ? m_peak - inUse : 0);
    const auto now = std::chrono::steady_clock::now();
    // Pages of which an idle thread has one half stay, and are not looked at again each time.
    if (free > wanted + wanted / 8 && free > m_untrimmed + m_untrimmed / 8 && now >= m_trimAt) {
        s_chunks.Trim(wanted);
        m_trimAt = now + peakStep;
        const std::size_t left = s_chunks.Free();
        m_untrimmed = left > wanted + wanted / 8 ? left : 0;
    }
}

// The end --------------------------------------------------------------------------------------

void Delivery::End() {
    s_life.EndDelivery(); // nothing more is let in
    m_flushes.End();      // everything that was queued before the end is delivered
    s_consumers.ReleaseAll(Deadline::max()); // may call back
    if (InForkedChild())
        return;
    for (ThreadRecord* record = s_threads.First(); record != nullptr; record = record->next)
        record->queue.Discard(record->queue.Published()); // what came behind the end
    s_threads.SetSwept(false);
    m_merge.Free();
    m_event = DeliveredEvent();
    m_stopped.Signal();
}

} // namespace Metrics::detail
