#ifndef METRICS_BENCHMARKS_BENCH_H
#define METRICS_BENCHMARKS_BENCH_H

#include <metrics/Metrics.h>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

inline Metrics::MetricsManager& Manager() {
    return *Metrics::MetricsManager::GetInstance();
}

inline void Flush() {
    Manager().WaitUntilWritesFlushed(60'000);
}

/// The resident memory of this process, in bytes.
inline double ResidentMemory() {
    std::ifstream statm("/proc/self/statm");
    double total = 0;
    double resident = 0;
    statm >> total >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

/// Counts what it is given, on the delivery thread; takes `delay` for each event.
class CountingConsumer final : public Metrics::IMetricsListener {
public:
    explicit CountingConsumer(Clock::duration delay = {}) : m_delay(delay) {}
    void OnMetricsEvent(const Metrics::MetricsEvent& /*event*/) override {
        if (m_delay != Clock::duration::zero()) [[unlikely]]
            for (const auto end = Clock::now() + m_delay; Clock::now() < end;) {}
        m_count.store(Count() + 1, std::memory_order_relaxed); // one writer
    }
    std::uint64_t Count() const { return m_count.load(std::memory_order_relaxed); }

private:
    const Clock::duration m_delay;
    std::atomic<std::uint64_t> m_count{0};
};

/// Holds the delivery thread back while it is shut.
class Gate final : public Metrics::IMetricsListener {
public:
    void OnMetricsEvent(const Metrics::MetricsEvent& /*event*/) override {
        if (!m_shut.load(std::memory_order_acquire)) [[likely]]
            return;
        m_reached.store(true, std::memory_order_release);
        m_reached.notify_one();
        m_shut.wait(true, std::memory_order_acquire);
    }
    /// Shuts the gate, emits one event, and returns when the delivery thread stands before it.
    void Shut(Metrics::Context& context) {
        m_reached.store(false, std::memory_order_relaxed);
        m_shut.store(true, std::memory_order_release);
        context.Emit(0, 0);
        Manager().WaitUntilWritesFlushed(1); // cuts the delivery thread's pause short
        m_reached.wait(false, std::memory_order_acquire);
    }
    void Open() {
        m_shut.store(false, std::memory_order_release);
        m_shut.notify_one();
    }

private:
    std::atomic<bool> m_shut{false};
    std::atomic<bool> m_reached{false};
};

/// Keeps a consumer registered for all events for the length of a block.
template <class Consumer>
class Registered {
public:
    template <class... Args>
    explicit Registered(Args... args) : m_consumer(korsys::MakeRefCnt<Consumer>(args...)) {
        Manager().AddConsumer(m_consumer, ~std::uint64_t{0}, false);
    }
    ~Registered() { Manager().RemoveConsumer(m_consumer); }
    Registered(const Registered&) = delete;
    Registered& operator=(const Registered&) = delete;
    Consumer* operator->() const { return m_consumer.Get(); }

private:
    korsys::RefCntPtr<Consumer> m_consumer;
};

/// Lines the threads of a benchmark up.
inline void LineUp(const benchmark::State& state) {
    static std::barrier<> pair{2};
    if (state.threads() == 2)
        pair.arrive_and_wait();
}

struct Nothing {
    void operator()() const {}
};

/// A burst: `blocks` blocks of `calls` calls each.
struct Size {
    std::size_t blocks;
    std::size_t calls;
};

/// The figures for a single call come from 200,000 calls in a row on each thread. They are timed in
/// blocks, so that the median leaves out those in which the machine ran somebody else.
constexpr Size figureSize{100, 2000};

/// For the figures that show how the time varies from call to call: each is timed by itself.
constexpr Size singleCalls{50'000, 1};

/// Times bursts, block by block, each thread for itself by the wall clock, and reports the time for
/// one call, averaged over the threads: "ns" in the median block of this run, "p99" and "p99.9" in
/// the block that 99 % or 99.9 % do not exceed. The first bursts are not timed; they bring buffers,
/// queues and caches to the state in which they stay.
///
/// `prepare` runs before each burst and `settle` after it, both untimed and while no burst runs.
/// What was emitted is delivered in `settle`, for the peers just as for us.
template <class Block, class Settle = Nothing, class Prepare = Nothing>
void RunBursts(benchmark::State& state, Size size, Block block, Settle settle = {},
               Prepare prepare = {}) {
    std::vector<double> times;
    const auto burst = [&] {
        if (state.thread_index() == 0)
            prepare();
        LineUp(state);
        const auto burstStart = Clock::now();
        for (std::size_t i = 0; i < size.blocks; ++i) {
            const auto start = Clock::now();
            block();
            times.push_back(SecondsSince(start));
        }
        const double seconds = SecondsSince(burstStart);
        LineUp(state);
        if (state.thread_index() == 0)
            settle();
        return seconds;
    };
    for (int warmUp = 0; warmUp < 3; ++warmUp)
        burst();
    times.clear();
    times.reserve(size.blocks * static_cast<std::size_t>(state.max_iterations));
    for (auto _ : state)
        state.SetIterationTime(burst());
    std::sort(times.begin(), times.end());
    const auto report = [&](const char* name, double part) {
        const auto index = static_cast<std::size_t>(part * static_cast<double>(times.size()));
        state.counters[name] =
            benchmark::Counter(times.at(index) * 1e9 / static_cast<double>(size.calls),
                               benchmark::Counter::kAvgThreads);
    };
    report("ns", 0.5);
    report("p99", 0.99);
    report("p99.9", 0.999);
}

/// The same for a single call, which gets a number.
template <class Call, class Settle = Nothing>
void RunCalls(benchmark::State& state, Size size, Call call, Settle settle = {}) {
    const auto block = [calls = size.calls, call] {
        for (std::size_t i = 0, end = calls; i < end; ++i) {
            call(static_cast<std::int64_t>(i));
            benchmark::ClobberMemory(); // nothing is done once for all calls
        }
    };
    RunBursts(state, size, block, settle);
}

/// Registers a benchmark that times itself, on 1 to `maxThreads` threads.
template <class Function>
void Register(const std::string& name, int maxThreads, int bursts, Function function) {
    benchmark::RegisterBenchmark(name.c_str(), function)
        ->ThreadRange(1, maxThreads)
        ->Iterations(bursts)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

void RegisterFigures();
void RegisterSpdlog();
void RegisterLttng();

/// Registers every public call, in a state: "off", "accepted", ...
void RegisterCalls(const std::string& state);

} // namespace bench

#endif // METRICS_BENCHMARKS_BENCH_H
