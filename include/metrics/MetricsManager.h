#ifndef METRICS_MANAGER_H
#define METRICS_MANAGER_H

#include <metrics/MetricsError.h>
#include <metrics/MetricsEvent.h>
#include <metrics/MetricsExport.h>
#include <metrics/MetricsFilter.h>
#include <metrics/MetricsOptions.h>
#include <metrics/MetricsStatistics.h>
#include <metrics/MetricsThreadContext.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <system_error>

namespace Metrics {

/// The process-wide hub. It drops events whose category bits are off, stamps the rest, hands them
/// at once to the synchronous consumers and queues them for the asynchronous ones, which one
/// delivery thread calls in order.
///
/// Life: GetInstance gives an idle manager; Enable starts the delivery thread and lets events and
/// consumers in; Disable delivers what is queued and switches the library off for the rest of the
/// process; ShutdownAndFreeInstance does the same, and runs by itself at unload or exit.
/// Once the library is off, and in a child forked after Enable, every operation does nothing and
/// returns false, 0, null or nothing.
///
/// Ordering: asynchronous consumers see events in the order of their stamps, each thread's own
/// order kept. An event emitted after another thread's emit has returned is delivered after that
/// one. A synchronous consumer sees an event before any asynchronous one does.
///
/// A pointer from GetInstance stays valid as long as the library is loaded, after
/// ShutdownAndFreeInstance too.
class METRICS_EXPORT MetricsManager {
public:
    MetricsManager(const MetricsManager&) = delete;
    MetricsManager& operator=(const MetricsManager&) = delete;

    /// The one instance, made on first use; never null.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: one relaxed load; the first call takes a lock.
    static MetricsManager* GetInstance();

    /// Disables the manager, if anybody has asked for it. One deadline of 1000 ms covers the
    /// delivery of what is queued, an end that another thread is at, and the calls of synchronous
    /// consumers that other threads are inside of. What is still running then is left alone, and
    /// nothing is freed under it.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: blocks for at most 1000 ms; calls consumers.
    static void ShutdownAndFreeInstance() noexcept;

    /// Starts the delivery thread; does nothing when it exists. The thread is named "metrics" and
    /// blocks every signal but the synchronous ones. It has the ordinary scheduling policy, and the
    /// processors and the niceness of the calling thread; the init function may choose others. Does
    /// not wait for that function.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: takes a lock; allocates; starts a thread.
    /// @throws std::system_error when the thread cannot be started (events are accepted from then
    ///         on all the same, and the next Enable tries again); std::bad_alloc.
    void Enable();

    /// The same for applications without exceptions. @return whether events are accepted: false
    /// when the library is off, and with the reason in `error` where Enable throws. Else `error` is
    /// cleared.
    bool Enable(std::error_code& error) noexcept;

    /// Sends the Shutdown event, switches the library off for good, and waits up to 1000 ms until
    /// everything queued before is delivered and the delivery thread has ended. What the
    /// synchronous consumers take for the Shutdown event comes on top; what they throw is dropped.
    /// @return true when both happened in time; false after the time-out, without a delivery
    ///         thread, when the library is off already, or when another thread is disabling it.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: blocks for at most 1000 ms; calls consumers.
    bool Disable() noexcept;

    /// The same with a deadline of its own, and a report on what became of everything. When another
    /// thread is ending the library, waits for that one until the deadline; when it is off already,
    /// reports at once. An empty report in a forked child.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: blocks for at most the given number of milliseconds of the steady clock, and what the
    /// synchronous consumers take for the Shutdown event; calls consumers; allocates. Without
    /// memory for them, the names in the report are left out.
    MetricsShutdownReport Shutdown(unsigned int milliseconds) noexcept;

    /// Has `function` called once on the delivery thread, first thing when it starts; it is
    /// released right after. Takes effect only before Enable. What it throws is dropped.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: takes a lock; allocates.
    /// @throws std::bad_alloc
    void SetThreadInitFunction(std::function<void()> function);

    /// Adds category bits to the mask. @return the mask as it was before.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: one atomic operation; takes no lock and allocates nothing.
    std::uint64_t SetBits(std::uint64_t bits) noexcept;

    /// Replaces the mask. Does nothing when the library is off.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: one atomic operation; takes no lock and allocates nothing.
    void SetBitsAbsolute(std::uint64_t bits) noexcept;

    /// Removes category bits from the mask. Does nothing when the library is off.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: one atomic operation; takes no lock and allocates nothing.
    void ClearBits(std::uint64_t bits) noexcept;

    /// Registers a consumer for events that pass `bits`, called on the emitting threads when
    /// `synchronous`, else on the delivery thread. A listener may be registered several times, and
    /// is then called once for each. The manager holds a reference until the registration ends.
    ///
    ///     const auto consumer = korsys::MakeRefCnt<MyConsumer>();
    ///     manager.AddConsumer(consumer, MetricsBits::net, false);
    ///
    /// @return false, registering nothing, for a null listener, before Enable, when the library is
    ///         off, and from inside OnMetricsEvent.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: takes a lock for a few instructions and waits for no call; allocates.
    /// @throws std::bad_alloc
    bool AddConsumer(MetricsListenerPtr listener, std::uint64_t bits, bool synchronous);

    /// The same, with a name for the statistics, and with limits past which the consumer is set
    /// aside, so that it no longer harms the others.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: that of the other AddConsumer; the first asynchronous consumer with
    /// maxCallMilliseconds starts a second thread of ours, which looks four times in that time.
    /// @throws std::bad_alloc; std::system_error when that thread cannot be started.
    bool AddConsumer(MetricsListenerPtr listener, std::uint64_t bits, bool synchronous,
                     const MetricsConsumerOptions& options);

    /// Ends one registration of the listener, a synchronous one first. Once it has returned, that
    /// registration is not called again and no call of it is in progress.
    /// @return false when there is none, and under the conditions of AddConsumer.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: waits for the calls of consumers of its kind that are in progress on other threads;
    /// takes a lock for a few instructions; allocates nothing.
    bool RemoveConsumer(MetricsListenerPtr listener);

    /// Takes an event whose type, ids, bits and values are filled in: drops it when its bits are
    /// off, else stamps it, calls the synchronous consumers, and queues it. A Shutdown event passes
    /// whatever the bits, and ends the delivery when it is reached. From code that may be unloaded,
    /// make events with MakeMetricsEvent.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: a stamp and one append. Takes no lock and waits for nobody; allocates on a thread's
    /// first event, and takes memory from a pool when 2 KiB are full.
    /// @throws what a synchronous consumer throws, and std::bad_alloc; the event is then lost.
    void EmitEvent(std::shared_ptr<MetricsEvent> event);

    /// Waits until everything that was queued at the call has reached the asynchronous consumers,
    /// at most the given number of milliseconds of the steady clock. Returns at once when the
    /// library is not enabled, and from inside OnMetricsEvent. Not for the thread-init function,
    /// behind which the delivery waits.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: wakes the delivery thread and blocks; takes a lock; allocates nothing.
    void WaitUntilWritesFlushed(unsigned int milliseconds);

    /// What became of all events so far, and what the consumers were called for. Also when the
    /// library is off; all zero in a forked child.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: reads a few cache lines for each thread, and takes locks for the names of the
    /// consumers, under which it allocates; no emitter waits for them.
    /// @throws std::bad_alloc
    MetricsStatistics GetStatistics();

    /// Bounds the memory that queued events take, in all queues together: records, and texts that
    /// are handed over uncopied. What the `extra` of a value holds is not known, and not counted;
    /// nor is what waits already when the bound is set. 0 bytes, as at first: no bound.
    ///
    /// What is dropped is counted, and told to the asynchronous consumers: as soon as there is
    /// room, by one Custom event without context, source or category, whose values are "lost" and
    /// the number, in the place of the first event that was lost. There is an event at least
    /// between two of them; the second one is then told behind it.
    ///
    /// `milliseconds`, of the steady clock, is how long MetricsQueuePolicy::Wait waits.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: a few stores. With DropOldest it waits, for at most 100 ms, until the delivery thread
    /// has taken note; while that one is inside a consumer call the newest events are dropped.
    void SetQueueLimit(std::uint64_t bytes, MetricsQueuePolicy policy,
                       unsigned int milliseconds = 0) noexcept;

    /// Has `handler` told of faults that nobody else is told of: a consumer that threw or was set
    /// aside, the first failed write of a file, events that were lost, and, unless
    /// `lagMilliseconds` is 0, a delivery that lags by more than that. It is called on the delivery
    /// thread, between two batches, at most once a second for each reason, and a last time at the
    /// end, after which it is released. What it throws is dropped. An empty function: none, as at
    /// first. Once it has returned, the former handler is not called any more; inside of the
    /// handler or a consumer on the delivery thread, once that call has ended. Behind the end it
    /// takes none.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: takes a lock for a few instructions; waits for a call of the former handler;
    /// allocates.
    /// @throws std::bad_alloc
    void SetErrorHandler(std::function<void(const MetricsError&)> handler,
                         unsigned int lagMilliseconds = 0);

    /// The calling thread's stack of contexts, shared with the caller; an empty one stored nowhere
    /// when the library is off.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: allocates on a thread's first call.
    /// @throws std::bad_alloc
    std::shared_ptr<MetricsThreadContext> GetThreadContext();

    /// The calling thread's current context; null for none.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: a few loads; takes no lock and allocates nothing.
    Context* GetCurrentThreadContext() noexcept;

    /// The id of the calling thread's current context; 0 for none.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: a few loads; takes no lock and allocates nothing.
    std::uint64_t GetCurrentThreadContextId() noexcept;

    /// A context id never given before in this process, from 1; 0 when the library is off.
    ///
    /// Thread-safety: safe from any thread at any time.
    /// Cost: one atomic operation; takes no lock and allocates nothing.
    std::uint64_t GetNextContextId() noexcept;

private:
    // The state stands behind the interface, in the library; the object is a name for it.
    constexpr MetricsManager() noexcept = default;
    ~MetricsManager() = default;
    static MetricsManager s_interface __attribute__((visibility("hidden")));
};

} // namespace Metrics

#endif // METRICS_MANAGER_H
