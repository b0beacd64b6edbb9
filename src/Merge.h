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
    }

    /// Looks at a queue, after the cut was taken. `emitter` is its owner.
    /// @throws std::bad_alloc
    void Add(EventQueue& queue, pid_t emitter) {
        const std::byte* const end = queue.Published();
        const Record* const front = queue.Front(end);
        if (front != nullptr && front->Order() <= m_cut)
            m_sources.push_back({&queue, end, front->Order(), emitter});
    }

    /// Hands each record to `deliver(record, emitter)`, which takes its contents out; it is popped
    /// when that returns true. When it returns false or throws, the record and the rest stay.
    template <class Deliver>
    void Run(Deliver deliver) {
        std::make_heap(m_sources.begin(), m_sources.end());
        while (!m_sources.empty()) {
            std::pop_heap(m_sources.begin(), m_sources.end());
            Source& source = m_sources.back();
            // This queue's turn lasts until another one's next record is older.
            const std::uint64_t until =
                m_sources.size() == 1 ? m_cut : std::min(m_cut, m_sources.front().order);
            Record* record = source.queue->Front(source.end);
            do {
                if (!deliver(*record, source.emitter))
                    return;
                source.queue->Pop();
                record = source.queue->Front(source.end);
            } while (record != nullptr && record->Order() <= until);
            if (record != nullptr && record->Order() <= m_cut) {
                source.order = record->Order();
                std::push_heap(m_sources.begin(), m_sources.end());
            } else {
                m_sources.pop_back();
            }
        }
    }

    /// Drops what was found in these queues. Code of the application may run.
    /// @return of how many queues.
    std::size_t Discard() noexcept {
        for (const Source& source : m_sources)
            source.queue->Discard(source.end);
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

    std::uint64_t m_cut = 0;
    std::vector<Source> m_sources;
};

} // namespace Metrics::detail

#endif // METRICS_SRC_MERGE_H
