#include "AsymmetricBarrier.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Metrics::detail {

constinit std::atomic<bool> AsymmetricBarrier::s_registered{false};

void AsymmetricBarrier::Register() noexcept {
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0)
        s_registered.store(true, std::memory_order_relaxed);
}

void AsymmetricBarrier::Heavy() noexcept {
    if (!IsRegistered())
        return;
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0)
        return;
    // Taken away after the registration, by a system-call filter say. Threads that stored relaxed
    // just now have their stores out of the store buffer long before this pause ends.
    s_registered.store(false, std::memory_order_relaxed);
    usleep(5000);
}

} // namespace Metrics::detail
