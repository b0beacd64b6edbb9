#include "Report.h"

#include "SelfTime.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <utility>

namespace Metrics::tools {

namespace {

using SelfTimesByRun = std::vector<std::vector<std::uint64_t>>;

/// One array of items for each name; noName has one too.
template <class Item>
class ByName {
public:
    explicit ByName(const Model& model) : m_items(model.names.Size() + 1) {}

    Item& operator[](NameId name) { return m_items[name == noName ? m_items.size() - 1 : name]; }

    template <class Function>
    void ForEach(Function function) {
        for (std::size_t i = 0; i < m_items.size(); ++i)
            function(i + 1 == m_items.size() ? noName : static_cast<NameId>(i), m_items[i]);
    }

private:
    std::vector<Item> m_items;
};

struct RequestSample {
    Nanoseconds duration;
    Index run;
    Index context;
};

/// What the requests' trees consist of, summed over some requests.
class TreeSums {
public:
    TreeSums(const Model& model, const SelfTimesByRun& self)
        : m_model(&model), m_self(&self), m_sums(model) {}

    void Add(Index runIndex, Index root) {
        const Run& run = m_model->runs[runIndex];
        m_todo.assign(1, root);
        while (!m_todo.empty()) {
            const Context& context = run.contexts[m_todo.back()];
            m_todo.pop_back();
            if (context.HasWait())
                m_sums[Report::TailPart::waiting] += context.Wait();
            for (Index i = 0; i < context.scopeCount; ++i)
                m_sums[run.scopes[context.firstScope + i].label] +=
                    (*m_self)[runIndex][context.firstScope + i];
            const auto children = run.ChildrenOf(context);
            m_todo.insert(m_todo.end(), children.begin(), children.end());
        }
        ++m_count;
    }

    Nanoseconds Mean(NameId part) { return (m_sums[part] + m_count / 2) / m_count; }

private:
    const Model* m_model;
    const SelfTimesByRun* m_self;
    ByName<Nanoseconds> m_sums;
    std::vector<Index> m_todo;
    Nanoseconds m_count = 0;
};

void AddTail(const Model& model, const SelfTimesByRun& self, NameId name,
             std::vector<RequestSample>& samples, const Distribution& durations, Report& report) {
    if (!durations.p99)
        return;
    std::stable_sort(
        samples.begin(), samples.end(),
        [](const RequestSample& a, const RequestSample& b) { return a.duration < b.duration; });
    TreeSums median(model, self);
    TreeSums tail(model, self);
    bool hasTail = false;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const std::size_t percent = (i + 1) * 100;
        if (percent >= 45 * samples.size() && percent <= 55 * samples.size())
            median.Add(samples[i].run, samples[i].context);
        if (samples[i].duration > *durations.p99) {
            tail.Add(samples[i].run, samples[i].context);
            hasTail = true;
        }
    }
    if (!hasTail) // the slowest ones are all alike
        return;
    const auto begin = static_cast<std::ptrdiff_t>(report.tail.size());
    double difference = 0;
    for (NameId i = 0; i <= model.names.Size(); ++i) {
        const NameId part = i == model.names.Size() ? Report::TailPart::waiting : i;
        const Nanoseconds medianTime = median.Mean(part);
        const Nanoseconds tailTime = tail.Mean(part);
        if (medianTime == 0 && tailTime == 0)
            continue;
        const double more = static_cast<double>(tailTime) - static_cast<double>(medianTime);
        report.tail.push_back({name, part, medianTime, tailTime, more});
        difference += more;
    }
    for (auto part = report.tail.begin() + begin; part != report.tail.end(); ++part)
        part->share = difference > 0 ? part->share / difference : 0;
    std::stable_sort(report.tail.begin() + begin, report.tail.end(),
                     [](const Report::TailPart& a, const Report::TailPart& b) {
                         return a.tail + b.median > b.tail + a.median;
                     });
}

void AddRequests(const Model& model, const SelfTimesByRun& self, const std::string& wanted,
                 Report& report) {
    ByName<std::vector<RequestSample>> byName(model);
    for (Index run = 0; run < model.runs.size(); ++run)
        for (const Index index : Requests(model, model.runs[run], wanted)) {
            const Context& context = model.runs[run].contexts[index];
            if (context.IsWhole())
                byName[context.name].push_back({context.Duration(), run, index});
        }
    byName.ForEach([&](NameId name, const std::vector<RequestSample>& samples) {
        if (samples.empty())
            return;
        std::vector<Nanoseconds> durations;
        durations.reserve(samples.size());
        for (const RequestSample& sample : samples)
            durations.push_back(sample.duration);
        report.requests.push_back({name, Distribute(durations)});
    });
    std::stable_sort(report.requests.begin(), report.requests.end(),
                     [](const Report::Request& a, const Report::Request& b) {
                         return a.durations.sum > b.durations.sum;
                     });
    for (const Report::Request& request : report.requests)
        AddTail(model, self, request.name, byName[request.name], request.durations, report);
}

void AddLabels(const Model& model, const SelfTimesByRun& self, Report& report) {
    struct Times {
        std::vector<Nanoseconds> durations;
        Nanoseconds total = 0;
        Nanoseconds self = 0;
    };
    ByName<Times> byLabel(model);
    for (std::size_t r = 0; r < model.runs.size(); ++r) {
        const Run& run = model.runs[r];
        for (std::size_t i = 0; i < run.scopes.size(); ++i) {
            const Scope& scope = run.scopes[i];
            if (!scope.IsWhole())
                continue;
            Times& times = byLabel[scope.label];
            times.durations.push_back(scope.Duration());
            times.self += self[r][i];
            times.total += IsRecursive(run, scope) ? 0 : scope.Duration();
        }
    }
    byLabel.ForEach([&](NameId label, Times& times) {
        if (!times.durations.empty())
            report.labels.push_back({label, times.total, times.self, Distribute(times.durations)});
    });
    std::stable_sort(
        report.labels.begin(), report.labels.end(),
        [](const Report::Label& a, const Report::Label& b) { return a.self > b.self; });
}

void AddHandovers(const Model& model, Report& report) {
    struct Waits {
        std::vector<Nanoseconds> times;
        std::vector<std::int64_t> starts; ///< on the wall clock, as the ends
        std::vector<std::int64_t> ends;
    };
    ByName<Waits> byName(model);
    for (const Run& run : model.runs)
        for (Index i = 0; i < run.contexts.size(); ++i) {
            const Context& context = run.contexts[i];
            if (i == run.client || context.created == never)
                continue;
            Waits& waits = byName[context.name];
            if (context.opened != never)
                waits.times.push_back(context.Wait());
            if (context.opened != never && context.Wait() == 0)
                continue; // waiting at no moment
            waits.starts.push_back(run.Wall(context.created));
            if (context.opened != never)
                waits.ends.push_back(run.Wall(context.opened));
        }
    byName.ForEach([&](NameId name, Waits& waits) {
        if (waits.times.empty())
            return;
        Report::Handover handover{name, Distribute(waits.times), 0};
        std::sort(waits.starts.begin(), waits.starts.end());
        std::sort(waits.ends.begin(), waits.ends.end());
        std::size_t ended = 0;
        for (std::size_t started = 0; started < waits.starts.size(); ++started) {
            while (ended < waits.ends.size() && waits.ends[ended] <= waits.starts[started])
                ++ended;
            handover.mostWaiting =
                std::max<std::uint64_t>(handover.mostWaiting, started + 1 - ended);
        }
        report.handovers.push_back(handover);
    });
    std::stable_sort(report.handovers.begin(), report.handovers.end(),
                     [](const Report::Handover& a, const Report::Handover& b) {
                         return a.waits.sum > b.waits.sum;
                     });
}

void AddThreads(const Model& model, Report& report) {
    for (const Run& run : model.runs) {
        std::map<std::int64_t, std::vector<std::pair<std::uint64_t, std::uint64_t>>> byThread;
        for (const Context& context : run.contexts)
            if (context.tid != noThread && context.IsWhole())
                byThread[context.tid].emplace_back(context.opened, context.closed);
        for (auto& [tid, pieces] : byThread) {
            std::sort(pieces.begin(), pieces.end());
            Nanoseconds busy = 0;
            std::uint64_t covered = 0;
            for (const auto& [start, end] : pieces) {
                busy += Between(std::max(start, covered), end);
                covered = std::max(covered, end);
            }
            const Nanoseconds elapsed = Between(run.begin, run.end);
            report.threads.push_back({run.path, tid, busy,
                                      static_cast<double>(busy) /
                                          static_cast<double>(std::max<Nanoseconds>(elapsed, 1))});
        }
    }
    std::stable_sort(
        report.threads.begin(), report.threads.end(),
        [](const Report::Thread& a, const Report::Thread& b) { return a.busy > b.busy; });
}

} // namespace

Report MakeReport(const Model& model, const std::string& request) {
    Report report;
    report.runs = model.runs.size();
    SelfTimesByRun self;
    std::int64_t begin = std::numeric_limits<std::int64_t>::max();
    std::int64_t end = std::numeric_limits<std::int64_t>::min();
    for (const Run& run : model.runs) {
        report.events += run.events;
        self.push_back(SelfTimes(run));
        if (run.events == 0)
            continue;
        begin = std::min(begin, run.Wall(run.begin));
        end = std::max(end, run.Wall(run.end));
    }
    report.elapsed =
        end > begin ? static_cast<Nanoseconds>(end) - static_cast<Nanoseconds>(begin) : 0;
    AddRequests(model, self, request, report);
    AddLabels(model, self, report);
    AddHandovers(model, report);
    AddThreads(model, report);
    return report;
}

} // namespace Metrics::tools
