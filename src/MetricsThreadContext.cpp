#include "ContextState.h"

#include <metrics/MetricsContext.h>
#include <metrics/MetricsThreadContext.h>

#include <algorithm>
#include <utility>

namespace Metrics {

using detail::ContextState;

MetricsThreadContext::MetricsThreadContext() noexcept = default;

MetricsThreadContext::~MetricsThreadContext() {
    for (std::uint32_t i = 0; i < m_size; ++i)
        if (m_entries[i] != nullptr)
            m_entries[i]->RemoveReference();
    delete[] m_entries;
}

void MetricsThreadContext::ReserveOne() {
    if (m_size < m_capacity)
        return;
    const std::uint32_t capacity = std::max<std::uint32_t>(4, m_capacity * 2);
    auto* const entries = new ContextState*[capacity];
    std::copy_n(m_entries, m_size, entries);
    delete[] std::exchange(m_entries, entries);
    m_capacity = capacity;
}

void MetricsThreadContext::AttachContext(Context* context) {
    ReserveOne();
    ContextState* const state = context == nullptr ? nullptr : &context->NeedState();
    if (state != nullptr)
        state->AddReference();
    m_entries[m_size++] = state;
}

void MetricsThreadContext::DetachContext(Context* context) noexcept {
    ContextState* const state = context == nullptr ? nullptr : context->State();
    if (context != nullptr && state == nullptr)
        return; // was never attached anywhere
    std::uint32_t kept = 0;
    for (std::uint32_t i = 0; i < m_size; ++i) {
        if (m_entries[i] != state)
            m_entries[kept++] = m_entries[i];
        else if (state != nullptr)
            state->RemoveReference();
    }
    m_size = kept;
}

ContextState* MetricsThreadContext::SkipDestroyed() noexcept {
    while (m_size != 0 && m_entries[m_size - 1] != nullptr && m_entries[m_size - 1]->IsGone())
        m_entries[--m_size]->RemoveReference();
    return m_size == 0 ? nullptr : m_entries[m_size - 1];
}

Context* MetricsThreadContext::GetCurrentContext() const noexcept {
    // Whoever is left out was destroyed: the stack is the same without it.
    const ContextState* const current =
        CurrentStateOf(const_cast<MetricsThreadContext&>(*this)); // NOLINT
    return current == nullptr ? nullptr : current->context.load(std::memory_order_acquire);
}

std::uint64_t MetricsThreadContext::GetMetricsContextId() const noexcept {
    const ContextState* const current =
        CurrentStateOf(const_cast<MetricsThreadContext&>(*this)); // NOLINT
    return current == nullptr ? 0 : current->id;
}

std::uint64_t MetricsThreadContext::GetParentMetricsContextId() const noexcept {
    const ContextState* const current =
        CurrentStateOf(const_cast<MetricsThreadContext&>(*this)); // NOLINT
    return current == nullptr ? 0 : current->parentId;
}

} // namespace Metrics
