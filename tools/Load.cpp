#include "Load.h"

#include "ModelBuilder.h"
#include "Reader.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace Metrics::tools {

namespace {

/// Reads ahead on a thread of its own: lines are taken apart there while the model is built here.
///
/// Thread-safety: one thread at a time for each object.
class ReadAhead {
public:
    explicit ReadAhead(Reader& reader) : m_reader(&reader), m_thread([this] { Run(); }) {}

    ~ReadAhead() {
        {
            const std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }

    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// @return the next events, or nothing when there are no more.
    std::unique_ptr<EventBatch> Next(std::unique_ptr<EventBatch> used) {
        std::unique_lock lock(m_mutex);
        if (used != nullptr)
            m_free.push_back(std::move(used));
        m_changed.wait(lock, [this] { return !m_full.empty() || m_done; });
        std::unique_ptr<EventBatch> batch;
        if (!m_full.empty()) {
            batch = std::move(m_full.front());
            m_full.pop_front();
        }
        lock.unlock();
        m_changed.notify_all();
        return batch;
    }

    /// Once there are no more: why it broke off, if it did.
    const std::string& Error() const { return m_error; }

    double Progress() {
        const std::lock_guard lock(m_mutex);
        return m_progress;
    }

private:
    void Run() {
        std::string error;
        try {
            ReadAll();
        } catch (const std::exception& failure) {
            error = failure.what();
        }
        const std::lock_guard lock(m_mutex);
        m_error = error;
        m_done = true;
        m_changed.notify_all();
    }

    void ReadAll() {
        for (;;) {
            std::unique_ptr<EventBatch> batch;
            {
                std::unique_lock lock(m_mutex);
                m_changed.wait(lock, [this] { return m_full.size() < mostAhead || m_stop; });
                if (m_stop)
                    return;
                if (!m_free.empty()) {
                    batch = std::move(m_free.front());
                    m_free.pop_front();
                }
            }
            if (batch == nullptr)
                batch = std::make_unique<EventBatch>();
            if (!m_reader->Read(*batch))
                return;
            const std::lock_guard lock(m_mutex);
            m_progress = m_reader->Progress();
            m_full.push_back(std::move(batch));
            m_changed.notify_all();
        }
    }

    static constexpr std::size_t mostAhead = 4;

    Reader* m_reader;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::unique_ptr<EventBatch>> m_full; ///< this and what follows is under the mutex
    std::deque<std::unique_ptr<EventBatch>> m_free;
    std::string m_error;
    double m_progress = -1;
    bool m_done = false;
    bool m_stop = false;
    std::thread m_thread; ///< last: it uses the others
};

Run LoadRun(Names& names, const std::string& path, Reader& reader, const LoadObserver& observer) {
    ModelBuilder builder(names, path);
    std::string error;
    {
        ReadAhead ahead(reader);
        std::unique_ptr<EventBatch> batch;
        while ((batch = ahead.Next(std::move(batch))) != nullptr) {
            for (const Event& event : batch->events)
                builder.Add(event);
            observer.progress(path, ahead.Progress());
        }
        error = ahead.Error();
    }
    if (!error.empty())
        observer.problem(error);
    return builder.Finish(reader.GetDamage());
}

} // namespace

void TellDamage(const std::string& path, const Damage& damage,
                const std::function<void(const std::string&)>& problem) {
    constexpr std::size_t shown = 3;
    const std::vector<std::uint64_t>& lines = damage.unreadableLines;
    for (std::size_t i = 0; i < std::min(shown, lines.size()); ++i)
        problem(path + ":" + std::to_string(lines[i]) + ": not an event; left out");
    if (lines.size() > shown)
        problem(path + ": " + std::to_string(lines.size() - shown) +
                " more lines that are no events; `metrics check` lists them");
    if (damage.truncated)
        problem(path + ": the last line is cut short; left out");
}

Model Load(const std::vector<std::string>& paths, const LoadObserver& observer) {
    Model model;
    for (const std::string& path : paths) {
        try {
            const std::unique_ptr<Reader> reader = OpenCsv(path);
            model.runs.push_back(LoadRun(model.names, path, *reader, observer));
            TellDamage(path, model.runs.back().damage, observer.problem);
        } catch (const ReadError& error) {
            observer.problem(error.what());
        }
    }
    return model;
}

} // namespace Metrics::tools
