#include "Waits.h"

#include "ManagerState.h"

namespace Metrics::detail {

namespace {

/// Runs `operation` on the instance, if there is one that this thread may use.
template <class Result, class Operation>
Result WithInstance(Result otherwise, Operation operation) {
    if (IsOff() || t_thread.delivery != nullptr || !s_live.m_enabled)
        return otherwise;
    const SectionGuard guard(s_live.m_threadContexts.Current().operation);
    ManagerState* const instance = s_live.m_instance;
    return instance == nullptr ? otherwise : operation(*instance);
}

} // namespace

bool FlushUntil(std::chrono::steady_clock::time_point deadline) {
    const auto flushed =
        WithInstance(std::shared_ptr<korsys::TEvent>(),
                     [](ManagerState& instance) { return instance.RequestFlush(); });
    return flushed != nullptr && flushed->WaitUntil(deadline);
}

bool RemoveConsumerUntil(const IMetricsListener* listener,
                         std::chrono::steady_clock::time_point deadline) {
    // The lock of today knows no deadline: it is not asked for when one has passed already.
    return std::chrono::steady_clock::now() < deadline &&
           WithInstance(false,
                        [&](ManagerState& instance) { return instance.RemoveConsumer(listener); });
}

} // namespace Metrics::detail
