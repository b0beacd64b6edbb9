#include "ContextState.h"

#include <metrics/MetricsContext.h>
#include <metrics/MetricsThreadContext.h>

#include <algorithm>
#include <utility>

namespace Metrics {

using detail::ContextState;
using detail::IsContext;
using detail::Placeholder;

MetricsThreadContext::MetricsThreadContext() noexcept = default;

MetricsThreadContext::~MetricsThreadContext() {
    ShrinkTo(0);
    delete[] m_entries;
}

void MetricsThreadContext::Reserve(std::uint32_t more) {
    if (m_capacity - m_size >= more)
        return;
    const std::uint32_t capacity = std::max<std::uint32_t>(4, m_capacity * 2);
    auto* const entries = new ContextState*[capacity];
    std::copy_n(m_entries, m_size, entries);
    delete[] std::exchange(m_entries, entries);
    m_capacity = capacity;
}

void MetricsThreadContext::ShrinkTo(std::uint32_t size) noexcept {
    while (m_size > size)
        if (ContextState* const entry = m_entries[--m_size]; IsContext(entry))
            entry->RemoveReference();
}

void MetricsThreadContext::AttachContext(Context* context) {
    Reserve(1);
    ContextState* const state = context == nullptr ? nullptr : &context->NeedState();
    if (state != nullptr)
        state->AddReference();
    m_entries[m_size++] = state != nullptr ? state : Placeholder(nullptr);
}

void MetricsThreadContext::DetachContext(Context* context) noexcept {
    ContextState* const gone = context == nullptr ? Placeholder(nullptr) : context->State();
    if (gone == nullptr)
        return; // was never attached anywhere
    std::uint32_t kept = 0;
    for (std::uint32_t i = 0; i < m_size; ++i) {
        ContextState* const entry = m_entries[i];
        if (entry != gone)
            m_entries[kept++] = entry;
        else if (IsContext(entry))
            entry->RemoveReference(); // each entry has one
    }
    m_size = kept;
}

ContextState* MetricsThreadContext::FindCurrent() noexcept {
    // Those that were destroyed are taken off, down to where a guard began: what is below stays.
    for (std::uint32_t i = m_size; i != 0; --i) {
        ContextState* const entry = m_entries[i - 1];
        if (entry == Placeholder(nullptr))
            return nullptr;
        if (!IsContext(entry))
            continue;
        if (!entry->IsGone())
            return entry;
        if (i == m_size)
            ShrinkTo(i - 1);
    }
    return nullptr;
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
