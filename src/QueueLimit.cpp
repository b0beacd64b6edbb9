#include "QueueLimit.h"

namespace Metrics::detail {

constinit QueueLimit s_queueLimit;

bool QueueLimit::TakeUpTo(std::uint64_t limit, std::size_t bytes) noexcept {
    std::uint64_t taken = m_taken.load(std::memory_order_relaxed);
    do {
        if (taken + bytes > limit)
            return false;
    } while (!m_taken.compare_exchange_weak(taken, taken + bytes, std::memory_order_relaxed));
    return true;
}

} // namespace Metrics::detail
