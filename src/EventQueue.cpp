#include "EventQueue.h"

namespace Metrics::detail {

static_assert(sizeof(Record) + 2 * copiedText + sizeof(std::uint64_t) <=
                  Chunk::size - sizeof(Chunk),
              "any record fits into a chunk");
static_assert(2 * sizeof(MetricsValue) <= 2 * copiedText);
static_assert(alignof(MetricsValue) == 8 && alignof(Record) == 8,
              "records stand at multiples of 8");
static_assert((Chunk::size - sizeof(Chunk)) / sizeof(Record) == 31);

std::byte* EventQueue::BeginNextChunk(std::byte* at) {
    Chunk& chunk = s_chunks.Take(); // may throw, before anything has changed
    // Relaxed, here and below: published by the first record of the new chunk.
    chunk.next.store(nullptr, std::memory_order_relaxed);
    chunk.hasObjects.store(false, std::memory_order_relaxed);
    if (at == nullptr) {
        m_first = &chunk;
    } else {
        Chunk* const full = Chunk::Of(at - 1);
        full->next.store(&chunk, std::memory_order_relaxed);
        if (Chunk::RoomAt(at) != 0)
            Record::At(at)->size = 0; // the end mark
    }
    return chunk.Begin();
}

void EventQueue::Append(const Stamp& stamp, std::shared_ptr<MetricsEvent>&& event) {
    Record& record = Reserve(stamp, sizeof(Record));
    record.type = static_cast<std::int32_t>(event->eventType);
    record.first = record.second = Record::Form::Shared;
    ::new (record.slots) std::shared_ptr<MetricsEvent>(std::move(event));
    Chunk::Of(record.Tail() - 1)->MarkObjects();
    Publish(record);
}

void EventQueue::EnterNextChunk() noexcept {
    if (m_read == nullptr) {
        m_read = m_first->Begin();
        return;
    }
    Chunk* const left = Chunk::Of(m_read - 1);
    m_read = left->next.load(std::memory_order_relaxed)->Begin();
    s_chunks.Put(*left);
}

void EventQueue::Destroy(Record& record) noexcept {
    if (record.first == Record::Form::Shared) {
        record.SharedEvent().~shared_ptr();
        return;
    }
    std::byte* tail = record.Tail();
    const auto destroy = [&tail](Record::Form form, const Record::Slot& slot) {
        if (form == Record::Form::Characters) {
            tail += (slot.length + 7) & ~std::size_t{7};
        } else if (form == Record::Form::Value) {
            std::launder(reinterpret_cast<MetricsValue*>(tail))->~MetricsValue();
            tail += sizeof(MetricsValue);
        }
    };
    destroy(record.first, record.slots[0]);
    destroy(record.second, record.slots[1]);
}

void EventQueue::Discard(const std::byte* end) noexcept {
    while (m_read != end) {
        Record& front = *Front(end); // enters the chunk
        Chunk* const chunk = Chunk::Of(m_read);
        const bool isWhole = chunk != Chunk::Of(end - 1) && m_read == chunk->Begin();
        if (isWhole && !chunk->hasObjects.load(std::memory_order_relaxed)) {
            m_read =
                reinterpret_cast<std::byte*>(chunk) + Chunk::size; // its end: the next one follows
            continue;
        }
        Destroy(front);
        Pop();
    }
}

void EventQueue::Release() noexcept {
    if (m_read == nullptr)
        return;
    s_chunks.Put(*Chunk::Of(m_read - 1));
    m_read = nullptr;
    m_first = nullptr;
    m_published.store(nullptr, std::memory_order_relaxed);
}

} // namespace Metrics::detail
