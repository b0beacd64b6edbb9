#ifndef METRICS_SRC_MERGE_H
#define METRICS_SRC_MERGE_H

#include "EventQueue.h"

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Metrics::detail {

/// Takes the records of many queues in one order: that of their stamps up to the cut, each queue's
/// own order kept. See Delivery for what that promises.
///
/// Thread-safety: one thread at a time, which is the reader of all queues.
class Merge {
public:
    /// Forgets the queues of the last time, and begins with a new cut.
    void Begin(std::uint64_t cut) noexcept {
        m_cut = cut;
        m_sources.clear();
        m_record = nullptr;
    }

    /// Looks at a queue, after the cut was taken. `emitter` is its owner.
    /// @throws std::bad_alloc
    void Add(EventQueue& queue, pid_t emitter) {
        const std::byte* const end = queue.Published();
        const Record* const front = queue.Front(end);
        if (front != nullptr && front->Order() <= m_cut)
            m_sources.push_back({&queue, end, front->Order(), emitter});
    }

    /// Behind the last Add.
    void Order() noexcept {
        std::make_heap(m_sources.begin(), m_sources.end());
        TakeSource();
    }

    /// The next record; null when there is none.
    Record* Front() const noexcept { return m_record; }
    /// Of the next record: its queue, and who emitted it.
    EventQueue& Queue() const noexcept { return *m_sources.back().queue; }
    pid_t Emitter() const noexcept { return m_sources.back().emitter; }

    /// Goes on behind the next record, whose contents were taken out.
    void Pop() noexcept {
        Source& source = m_sources.back();
        source.queue->Pop();
        m_record = source.queue->Front(source.end);
        if (m_record != nullptr && m_record->Order() <= m_until) [[likely]]
            return; // this queue's turn lasts until another one's next record is older
        if (m_record != nullptr && m_record->Order() <= m_cut) {
            source.order = m_record->Order();
            std::push_heap(m_sources.begin(), m_sources.end());
        } else {
            source.queue->GiveBack();
            m_sources.pop_back();
        }
        TakeSource();
    }

    /// Drops what was found in these queues. Code of the application may run.
    /// @return of how many queues.
    std::size_t Discard() noexcept {
        for (const Source& source : m_sources) {
            source.queue->Discard(source.end);
            source.queue->GiveBack();
        }
        return m_sources.size();
    }

    /// Frees the list of queues.
    void Free() noexcept { std::vector<Source>().swap(m_sources); }

private:
    /// A queue that holds something to be delivered.
    struct Source {
        EventQueue* queue;
        const std::byte* end; // what was published when it was looked at
        std::uint64_t order;  // of the record at the front
        pid_t emitter;

        /// For a heap that has the lowest order on top.
        friend bool operator<(const Source& a, const Source& b) noexcept {
            return a.order > b.order;
        }
    };

    /// Puts the queue with the oldest record behind the heap of the others.
    void TakeSource() noexcept {
        m_record = nullptr;
        if (m_sources.empty())
            return;
        std::pop_heap(m_sources.begin(), m_sources.end());
        Source& source = m_sources.back();
        m_until = m_sources.size() == 1 ? m_cut : std::min(m_cut, m_sources.front().order);
        m_record = source.queue->Front(source.end);
    }

    std::uint64_t m_cut = 0;
    std::uint64_t m_until = 0;
    Record* m_record = nullptr;
    std::vector<Source> m_sources;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_MERGE_H
