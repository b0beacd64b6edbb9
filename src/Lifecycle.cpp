#include "Lifecycle.h"

#include "Consumers.h"
#include "Delivery.h"
#include "Emit.h"
#include "Faults.h"
#include "Ledger.h"

#include <metrics/MetricsFilter.h>

#include <korsys/NoCancellation.h>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <thread>
#include <utility>

namespace Metrics::detail {

using std::chrono::steady_clock;

constinit Lifecycle s_life;
constinit LiveMask s_liveMask;

namespace {

constexpr std::chrono::milliseconds stopWait{1000};
constexpr std::chrono::microseconds pollStep{100};

/// Runs when the process exits or the library is unloaded.
struct MetricsManagerHolder {
    MetricsManagerHolder() noexcept { s_life.Load(); }
    ~MetricsManagerHolder() { s_life.ExitOrUnload(); }
};

// The library's static initialisers: this one first, the clock's second.
[[gnu::init_priority(200)]] MetricsManagerHolder s_metricsManager;

/// At unload the loader runs this first, before the destructors of static objects. At exit it may
/// run before or after them, but always after what was registered once main had begun.
[[gnu::destructor]] void MarkUnloading() {
    s_life.MarkUnloading();
}

void SwitchMaskOff() noexcept {
    s_liveMask.m_bits.store(0, std::memory_order_relaxed);
}

/// A delivery thread that did not end in time will go on in this code, so it must stay.
void KeepLibraryLoaded() noexcept {
    Dl_info info;
    void* handle = nullptr;
    if (dladdr(&s_life, &info) != 0 && info.dli_fname != nullptr)
        handle = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    if (handle == nullptr) // the path was relative, and the working directory has changed
        handle = dlopen(METRICS_SONAME, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    if (handle != nullptr)
        dlclose(handle); // the flag stays
}

} // namespace

// The beginning --------------------------------------------------------------------------------

void Lifecycle::Load() noexcept {
    m_process.store(getpid(), std::memory_order_relaxed);
    RegisterForkHandler();
}

void Lifecycle::RegisterForkHandler() noexcept {
    if (!m_hasForkHandler)
        m_hasForkHandler = pthread_atfork(nullptr, nullptr, [] { s_life.ContinueInChild(); }) == 0;
}

void Lifecycle::MakeInstance() noexcept {
    const korsys::MutexLock lock(m_lock);
    if (m_isMade.load(std::memory_order_relaxed))
        return;
    // At exit this runs while the library is still whole, and tells that from an unload.
    m_hasExitHandler = std::atexit([] { s_life.m_isExiting = !s_life.m_isUnloading; }) == 0;
    m_isMade.store(true, std::memory_order_relaxed);
}

void Lifecycle::Enable() {
    NoticeFork();
    if (IsOff()) // a forked child must not touch the lock
        return;
    const korsys::MutexLock lock(m_lock);
    if (m_phase > Phase::Enabled || m_end != End::NotBegun)
        return;
    Delivery& delivery = MakeDelivery();
    if (delivery.IsStarted())
        return;
    RegisterForkHandler(); // again, if there was no memory at load
    if (!m_hasForkHandler)
        throw std::bad_alloc(); // the only reason for it to fail
    if (m_phase == Phase::Idle)
        s_stampClock.Measure();
    // Accepting from here on: what is emitted before the thread has run is delivered too.
    m_phase = Phase::Enabled;
    delivery.Start();
}

void Lifecycle::Watch(std::uint32_t milliseconds) {
    const korsys::MutexLock lock(m_lock);
    Delivery* const delivery = FindDelivery();
    if (m_phase == Phase::Enabled && m_end == End::NotBegun && delivery != nullptr &&
        delivery->IsStarted())
        delivery->Watch(milliseconds);
}

void Lifecycle::SetThreadInitFunction(std::function<void()>&& function) {
    NoticeFork();
    if (IsOff())
        return;
    const korsys::MutexLock lock(m_lock);
    if (m_phase <= Phase::Enabled && m_end == End::NotBegun && !MakeDelivery().IsStarted())
        MakeDelivery().SetInitFunction(function); // the old one is released by the caller
}

// The end --------------------------------------------------------------------------------------

bool Lifecycle::ClaimEnd() noexcept {
    End expected = End::NotBegun;
    return !IsOff() && m_end.compare_exchange_strong(expected, End::Begun);
}

bool Lifecycle::EndUntil(steady_clock::time_point& deadline) noexcept {
    Delivery* delivery = nullptr;
    {
        const korsys::MutexLock lock(m_lock); // waits for an Enable in progress
        delivery = FindDelivery();
        if (delivery != nullptr && !delivery->IsStarted())
            delivery = nullptr;
    }
    bool hasEnded = false;
    if (delivery == nullptr) {
        const bool wasEnabled = Accepts(); // and the thread could not be started
        m_phase = Phase::Off;
        SwitchMaskOff();
        s_faults.Close();
        if (wasEnabled) {
            s_ledger.KeepConsumers();
            s_consumers.ReleaseAll(deadline);
        }
    } else {
        // 1. The synchronous consumers are told. The time that they take comes on top.
        const auto start = steady_clock::now();
        ShowShutdown();
        deadline += steady_clock::now() - start;
        m_deadline = deadline;
        if (IsForkedChild()) // one of them has forked, and this is the child
            return false;
        // 2. The end is stamped; 3. and behind it nothing is let in. So what is refused was emitted
        // behind the end.
        delivery->EndHere();
        m_phase = Phase::Off;
        // 4. What stands before the end is delivered, and the consumers let go.
        hasEnded = delivery->JoinUntil(deadline);
        // 5. Or the thread is left to itself, and to the library what it needs.
        if (!hasEnded)
            delivery->Detach();
        if (!hasEnded || !delivery->JoinDeposed()) {
            m_isStuck = true;
            if (!m_isUnloading) // then it is too late
                KeepLibraryLoaded();
        }
    }
    m_end = End::Done;
    return hasEnded;
}

bool Lifecycle::Disable() noexcept {
    const korsys::NoCancellation noCancellation; // it waits
    NoticeFork();
    if (!ClaimEnd())
        return false;
    auto deadline = steady_clock::now() + stopWait;
    m_deadline = deadline;
    return EndUntil(deadline);
}

MetricsShutdownReport Lifecycle::Shutdown(unsigned int milliseconds) noexcept {
    const korsys::NoCancellation noCancellation;
    NoticeFork();
    MetricsShutdownReport report;
    if (IsForkedChild())
        return report;
    auto deadline = steady_clock::now() + std::chrono::milliseconds(milliseconds);
    if (ClaimEnd()) {
        m_deadline = deadline;
        EndUntil(deadline);
    } else {
        PollUntil(deadline, [this] { return m_end == End::Done; });
    }
    const Delivery* const delivery = FindDelivery();
    report.ended = delivery != nullptr && delivery->HasEnded();
    try {
        if (!report.ended)
            report.stuckConsumer = s_consumers.NowCalled(report.stuckNanoseconds);
        report.statistics = s_ledger.Read();
    } catch (const std::bad_alloc&) {
        report.statistics = s_ledger.Counts(); // no memory for names
    }
    return report;
}

void Lifecycle::ShutDown() noexcept {
    const korsys::NoCancellation noCancellation;
    NoticeFork();
    if (IsForkedChild() || !m_isMade)
        return;
    auto deadline = steady_clock::now() + stopWait;
    if (ClaimEnd()) {
        m_deadline = deadline;
        EndUntil(deadline);
    } else {
        // Another thread is at it; what is queued must not be lost for that.
        while (m_end != End::Done && steady_clock::now() < std::max(deadline, m_deadline.load()))
            std::this_thread::sleep_for(pollStep);
    }
    SwitchMaskOff(); // also when the delivery thread can't do it
    // The calls of synchronous consumers come back to our code.
    if (!s_threads.WaitForCalls(deadline))
        m_isStuck = true;
}

void Lifecycle::EndDelivery() noexcept {
    Phase enabled = Phase::Enabled;
    m_phase.compare_exchange_strong(enabled, Phase::Ended);
    SwitchMaskOff();
}

void Lifecycle::SwitchOff() noexcept {
    m_end = End::Done;
    m_phase = Phase::Off;
}

void Lifecycle::ExitOrUnload() noexcept {
    ShutDown();
    if (IsForkedChild())
        return;
    // At exit other threads may still come by, and the memory goes with the process.
    const korsys::MutexLock lock(m_lock);
    if (m_hasExitHandler && !m_isExiting && !m_isStuck) {
        s_threads.FreeRecords();
        s_chunks.Unmap();
        s_ledger.Free();
    }
}

// fork(2) --------------------------------------------------------------------------------------

void Lifecycle::NoticeFork() noexcept {
    int process = m_process.load(std::memory_order_relaxed);
    const int own = getpid();
    // Exchanged, so that of two threads of the child one goes on.
    if (process != 0 && process != own && m_process.compare_exchange_strong(process, own))
        [[unlikely]]
        ContinueInChild();
}

void Lifecycle::ContinueInChild() noexcept {
    m_process.store(getpid(), std::memory_order_relaxed);
    if (m_phase == Phase::Idle) {
        // The child may use the library for itself. Its only thread is the one that forked; another
        // one may have held a lock.
        ::new (&m_lock) korsys::Mutex;
        s_threads.AdoptInChild();
        s_consumers.ResetLocks();
        s_faults.ResetLock();
        return;
    }
    // The delivery thread is gone. What it and others may have held is left as it is.
    m_phase = Phase::Forked;
    SwitchMaskOff();
}

} // namespace Metrics::detail
