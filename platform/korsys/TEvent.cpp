#include <korsys/TEvent.h>

namespace korsys {

void TEvent::Signal() {
    // Notified under the lock: a waiter may destroy the event as soon as it is let through.
    const std::lock_guard lock(m_mutex);
    // Release: pairs with the acquire loads in WaitUntil.
    m_signalled.store(true, std::memory_order_release);
    m_condition.notify_all();
}

bool TEvent::Wait(unsigned int milliseconds) {
    return WaitUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds));
}

bool TEvent::WaitUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(m_mutex);
    return m_condition.wait_until(lock, deadline,
                                  [this] { return m_signalled.load(std::memory_order_acquire); });
}

} // namespace korsys
