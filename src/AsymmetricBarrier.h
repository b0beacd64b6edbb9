#ifndef METRICS_SRC_ASYMMETRIC_BARRIER_H
#define METRICS_SRC_ASYMMETRIC_BARRIER_H

#include <atomic>

namespace Metrics::detail {

/// A store-load barrier between many fast threads and one slow one, paid for by the slow one.
///
/// A fast thread stores its mark, then loads what the slow thread changes; the slow thread changes
/// it, then loads the marks. At least one of them must see the other's store. With membarrier(2)
/// the slow thread makes every running thread of the process pass a full barrier, so that the fast
/// one needs none of its own. Where the call is missing, fast threads store their marks
/// sequentially consistent instead, which has the same effect.
class AsymmetricBarrier {
public:
    /// Registers the process for membarrier(2); until then, and where that fails, fast threads pay.
    static void Register() noexcept;

    /// Whether fast threads may store relaxed. Relaxed load: a thread that does not see the
    /// registration yet takes the stronger way, which is right as well.
    static bool IsRegistered() noexcept { return s_registered.load(std::memory_order_relaxed); }

    /// The slow thread's side, between its change and its look at the marks.
    static void Heavy() noexcept;

private:
    static std::atomic<bool> s_registered;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_ASYMMETRIC_BARRIER_H
