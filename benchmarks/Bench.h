#ifndef METRICS_BENCHMARKS_BENCH_H
#define METRICS_BENCHMARKS_BENCH_H

#include <metrics/Metrics.h>

#include <benchmark/benchmark.h>

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
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

/// Two processors that this process may run on, of different cores; the same one twice where there
/// is no other. What is measured with several threads is measured there.
inline const std::array<int, 2>& TwoCores() {
    static const auto cores = [] {
        const auto core = [](int processor) {
            const std::string directory =
                "/sys/devices/system/cpu/cpu" + std::to_string(processor) + "/topology/";
            std::pair<int, int> id{0, processor}; // where nothing is told, each is a core
            std::ifstream(directory + "physical_package_id") >> id.first;
            std::ifstream(directory + "core_id") >> id.second;
            return id;
        };
        cpu_set_t allowed;
        sched_getaffinity(0, sizeof(allowed), &allowed);
        std::array<int, 2> found{-1, -1};
        for (int processor = 0; processor < CPU_SETSIZE && found[1] < 0; ++processor) {
            if (!CPU_ISSET(processor, &allowed))
                continue;
            if (found[0] < 0)
                found[0] = processor;
            else if (core(processor) != core(found[0]))
                found[1] = processor;
        }
        return found[1] < 0 ? std::array<int, 2>{found[0], found[0]} : found;
    }();
    return cores;
}

/// Keeps the calling thread on one of the two cores for the length of a block, the threads by
/// turns.
class KeptOnCore {
public:
    explicit KeptOnCore(int thread) {
        sched_getaffinity(0, sizeof(m_before), &m_before);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(TwoCores().at(static_cast<std::size_t>(thread % 2)), &one);
        sched_setaffinity(0, sizeof(one), &one);
    }
    ~KeptOnCore() { sched_setaffinity(0, sizeof(m_before), &m_before); }
    KeptOnCore(const KeptOnCore&) = delete;
    KeptOnCore& operator=(const KeptOnCore&) = delete;

private:
    cpu_set_t m_before{};
};

/// The processor time of the calling thread, in seconds.
inline double ThreadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
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

/// As a synchronous consumer: called on the emitting threads, by several at once. What it costs is
/// the call itself.
class EmptyConsumer final : public Metrics::IMetricsListener {
public:
    void OnMetricsEvent(const Metrics::MetricsEvent& event) override {
        benchmark::DoNotOptimize(event.timestamp);
    }
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
template <class Consumer, bool synchronous = false>
class Registered {
public:
    template <class... Args>
    explicit Registered(Args... args) : m_consumer(korsys::MakeRefCnt<Consumer>(args...)) {
        Manager().AddConsumer(m_consumer, ~std::uint64_t{0}, synchronous);
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

/// Reports the time for one call of `calls`, averaged over the threads: "ns" in the median of these
/// seconds, "p99" and "p99.9" in those that 99 % or 99.9 % do not exceed.
inline void Report(benchmark::State& state, std::vector<double> seconds, std::size_t calls) {
    std::sort(seconds.begin(), seconds.end());
    for (const auto& [name, part] : {std::pair{"ns", 0.5}, {"p99", 0.99}, {"p99.9", 0.999}}) {
        const auto index = static_cast<std::size_t>(part * static_cast<double>(seconds.size()));
        state.counters[name] = benchmark::Counter(
            seconds.at(index) * 1e9 / static_cast<double>(calls), benchmark::Counter::kAvgThreads);
    }
}

/// Times bursts, block by block, each thread for itself by the wall clock, and reports the blocks
/// of this run. Two threads are kept on a core each. The first bursts are not timed; they bring
/// buffers, queues and caches to the state in which they stay.
///
/// `prepare` runs before each burst and `settle` after it, both untimed and while no burst runs.
/// What was emitted is delivered in `settle`, for the peers just as for us.
template <class Block, class Settle = Nothing, class Prepare = Nothing>
void RunBursts(benchmark::State& state, Size size, Block block, Settle settle = {},
               Prepare prepare = {}) {
    std::optional<KeptOnCore> kept;
    if (state.threads() == 2)
        kept.emplace(state.thread_index());
    std::vector<double> times;
    double lasted = 0;
    double worked = 0;
    const auto burst = [&] {
        if (state.thread_index() == 0)
            prepare();
        LineUp(state);
        const double workedBefore = ThreadSeconds();
        const auto burstStart = Clock::now();
        for (std::size_t i = 0; i < size.blocks; ++i) {
            const auto start = Clock::now();
            block();
            times.push_back(SecondsSince(start));
        }
        const double seconds = SecondsSince(burstStart);
        worked += ThreadSeconds() - workedBefore;
        lasted += seconds;
        LineUp(state);
        if (state.thread_index() == 0)
            settle();
        return seconds;
    };
    for (int warmUp = 0; warmUp < 3; ++warmUp)
        burst();
    times.clear();
    lasted = worked = 0;
    times.reserve(size.blocks * static_cast<std::size_t>(state.max_iterations));
    for (auto _ : state)
        state.SetIterationTime(burst());
    Report(state, std::move(times), size.calls);
    state.counters["share"] = benchmark::Counter(worked / lasted, benchmark::Counter::kAvgThreads);
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

/// Each call is timed by itself, after the emitter has written to more memory than its caches hold.
template <class Call>
void RunCold(benchmark::State& state, Call call) {
    std::vector<char> memory(std::size_t{16} << 20);
    std::vector<double> times;
    for (auto _ : state) {
        const auto burstStart = Clock::now();
        for (std::int64_t i = 0; i < 100; ++i) {
            for (std::size_t byte = 0; byte < memory.size(); byte += 64)
                ++memory[byte];
            benchmark::DoNotOptimize(memory.data());
            benchmark::ClobberMemory();
            const auto start = Clock::now();
            call(i);
            times.push_back(SecondsSince(start));
        }
        state.SetIterationTime(SecondsSince(burstStart));
    }
    Report(state, std::move(times), 1);
}

struct Times {
    double mean; ///< Seconds of one thread, averaged over them.
    double all;  ///< Seconds from the first start to the last end.
};

/// Runs `work` on new threads, which start together and are kept on the two cores by turns.
template <class Work>
Times OnNewThreads(int count, Work work) {
    std::barrier<> start(count);
    std::vector<Clock::time_point> begins(static_cast<std::size_t>(count));
    std::vector<Clock::time_point> ends(begins.size());
    std::vector<std::thread> threads;
    threads.reserve(begins.size());
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i, index = static_cast<std::size_t>(i)] {
            const KeptOnCore kept(i);
            start.arrive_and_wait();
            begins[index] = Clock::now();
            work();
            ends[index] = Clock::now();
        });
    for (std::thread& thread : threads)
        thread.join();
    std::chrono::duration<double> sum{};
    for (std::size_t i = 0; i < begins.size(); ++i)
        sum += ends[i] - begins[i];
    const std::chrono::duration<double> all = *std::max_element(ends.begin(), ends.end()) -
                                              *std::min_element(begins.begin(), begins.end());
    return {sum.count() / count, all.count()};
}

constexpr std::size_t freshCalls = 400'000;

/// Bursts of `freshCalls` calls, by `work` on each of some new threads, each burst after a quiet
/// second. All of the burst counts, the kernel's first touch of memory too.
template <class Work>
void RunFresh(benchmark::State& state, int threads, Work work) {
    std::vector<double> times;
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        times.push_back(OnNewThreads(threads, work).mean);
        state.SetIterationTime(times.back());
    }
    Report(state, std::move(times), freshCalls);
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
