#include "Bench.h"

#include <sys/resource.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

using bench::Clock;

constexpr std::uint64_t bound = std::uint64_t{64} << 20; // of the queues, for emitters at full rate

struct alignas(64) Emitter {
    std::atomic<std::uint64_t> emitted{0};

    /// Emits 100 events at a time, and waits `pause` from one time to the next.
    void Run(Clock::duration pause, const std::atomic<bool>& stop) {
        Metrics::Context context(0, Metrics::Context::Create(true));
        for (auto next = Clock::now(); !stop; next += pause) {
            std::this_thread::sleep_until(next);
            for (int i = 0; i < 100; ++i)
                context.Emit(i, 0.5);
            emitted.fetch_add(100, std::memory_order_relaxed);
        }
    }
};

/// One run: prints samples of the seconds since the start, the events emitted and delivered, and
/// the resident memory in bytes. It goes on until all is delivered, and for a second after that, in
/// which an idle library gives memory back.
void Run(const char* name, std::chrono::seconds length, Clock::duration pause) {
    // Half of the machine's memory; a larger backlog ends the emitting early.
    const double enough = 0.5 * static_cast<double>(sysconf(_SC_PHYS_PAGES)) *
                          static_cast<double>(sysconf(_SC_PAGESIZE));
    std::array<Emitter, 2> emitters;
    std::array<std::thread, 2> threads;
    std::atomic<bool> stop{false};
    const std::uint64_t before = bench::Manager().GetStatistics().delivered;
    const auto start = Clock::now();
    for (std::size_t i = 0; i < threads.size(); ++i)
        threads[i] = std::thread([&, i] { emitters[i].Run(pause, stop); });
    std::printf("\"%s\": [", name);
    auto end = start + length;
    for (auto next = start; next <= end; next += std::chrono::milliseconds(100)) {
        std::this_thread::sleep_until(next);
        const std::uint64_t delivered = bench::Manager().GetStatistics().delivered - before;
        const std::uint64_t emitted = emitters[0].emitted + emitters[1].emitted;
        const double resident = bench::ResidentMemory();
        std::printf("%s[%.1f, %ld, %ld, %.0f]", next == start ? "\n" : ",\n",
                    bench::SecondsSince(start), static_cast<long>(emitted),
                    static_cast<long>(delivered), resident);
        std::fflush(stdout);
        if (next >= start + length || resident > enough)
            stop = true;
        if (stop && delivered < emitted)
            end = next + std::chrono::seconds(1);
    }
    std::printf("]");
    for (std::thread& thread : threads)
        thread.join();
}

/// Two emitters as fast as they can, against a recorder.
void RunRecorder(std::chrono::seconds length) {
    Metrics::MetricsTraceClient client;
    client.ProcessArgument("-set=act");
    client.ProcessArgument("-trace=soak.trace");
    client.ProcessArgument("-trace-keep=1G");
    client.Open();
    Run("recorded", length, {});
    std::printf(",\n\"records_all\": %s", client.Close(60'000) ? "true" : "false");
}

/// Work of a thread's own, some nanoseconds for each step.
void Compute(long steps) {
    for (long i = 0; i < steps; ++i)
        benchmark::DoNotOptimize(i);
}

/// More threads than cores, all of which compute and emit, so that somebody is always interrupted
/// inside of an emit: each computes for `burst` events and then emits them, 500,000 in a second in
/// all if the emits took no time. Prints how long a flush takes after 4 seconds, `flushes` times,
/// and the largest resident memory, sampled every 0.1 s.
void RunCrowd(const char* name, std::size_t count, int burst, int flushes) {
    const double perEvent = static_cast<double>(std::thread::hardware_concurrency()) / 500'000;
    constexpr long probe = 20'000'000;
    const auto probeStart = Clock::now();
    Compute(probe);
    const auto steps =
        static_cast<long>(perEvent * burst / bench::SecondsSince(probeStart) * probe);

    const bench::Registered<bench::CountingConsumer> consumer;
    std::vector<Emitter> emitters(count);
    std::vector<std::thread> threads;
    threads.reserve(count);
    std::atomic<bool> stop{false};
    for (Emitter& emitter : emitters)
        threads.emplace_back([&emitter, &stop, burst, steps] {
            Metrics::Context context(0, Metrics::Context::Create(true));
            while (!stop.load(std::memory_order_relaxed)) {
                Compute(steps);
                for (int i = 0; i < burst; ++i)
                    context.Emit(i, 0.5);
                emitter.emitted.fetch_add(static_cast<std::uint64_t>(burst),
                                          std::memory_order_relaxed);
            }
        });
    double most = 0;
    std::printf(R"("%s": {"flushes": [)", name);
    for (int i = 0; i < flushes; ++i) {
        for (int sample = 0; sample < 40; ++sample) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            most = std::max(most, bench::ResidentMemory());
        }
        std::uint64_t emitted = 0;
        for (const Emitter& emitter : emitters)
            emitted += emitter.emitted;
        const std::uint64_t delivered = consumer->Count();
        const auto start = Clock::now();
        bench::Manager().WaitUntilWritesFlushed(10'000);
        const double seconds = bench::SecondsSince(start);
        most = std::max(most, bench::ResidentMemory());
        std::printf(R"(%s
{"emitted": %ld, "delivered": %ld, "seconds": %.3f, "all": %s})",
                    i == 0 ? "" : ",", static_cast<long>(emitted), static_cast<long>(delivered),
                    seconds, consumer->Count() >= emitted ? "true" : "false");
        std::fflush(stdout);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    std::printf("],\n\"resident\": %.0f}", most);
    bench::Flush();
    std::this_thread::sleep_for(std::chrono::seconds(2)); // an idle library gives memory back
}

/// The delivery thread before all others, as far as this process may.
void RunCrowds(int flushes) {
    static std::atomic<int> niceness;
    bench::Manager().SetThreadInitFunction([] {
        setpriority(PRIO_PROCESS, 0, -15);
        niceness = getpriority(PRIO_PROCESS, 0);
    });
    bench::Manager().Enable();
    bench::Manager().SetBits(Metrics::MetricsBits::act);
    bench::Flush();
    std::printf("{\n\"nice\": %d,\n", niceness.load());
    RunCrowd("300 threads", 300, 1, flushes);
    std::printf(",\n");
    RunCrowd("100 threads", 100, 3000, flushes);
    std::printf("\n}\n");
}

} // namespace

/// bench-soak SECONDS: two emitters, as fast as they can, held to a bound: against a consumer that
/// counts, and against a recorder; then, at 200,000 events in a second and without a bound, against
/// a consumer that manages half of that.
/// bench-soak crowd FLUSHES: more threads than cores. Both print JSON.
int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "crowd") == 0) {
        RunCrowds(argc > 2 ? std::atoi(argv[2]) : 3);
        return 0;
    }
    const std::chrono::seconds length(argc > 1 ? std::atoi(argv[1]) : 60);
    bench::Manager().Enable();
    bench::Manager().SetBits(Metrics::MetricsBits::act);
    std::printf("{\n");
    bench::Manager().SetQueueLimit(bound, Metrics::MetricsQueuePolicy::Wait, 10'000);
    {
        const bench::Registered<bench::CountingConsumer> consumer;
        Run("counted", length, {});
    }
    std::printf(",\n");
    RunRecorder(length);
    bench::Manager().SetQueueLimit(0, Metrics::MetricsQueuePolicy::Wait);
    std::printf(",\n");
    {
        const bench::Registered<bench::CountingConsumer> consumer(std::chrono::microseconds(10));
        Run("slow", length, std::chrono::milliseconds(1));
    }
    std::printf("\n}\n");
    return 0;
}
