#include "Bench.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using bench::Clock;

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
void Run(const char* name, std::chrono::seconds length, Clock::duration pause,
         Clock::duration delay) {
    // Half of the machine's memory; a larger backlog ends the emitting early.
    const double enough = 0.5 * static_cast<double>(sysconf(_SC_PHYS_PAGES)) *
                          static_cast<double>(sysconf(_SC_PAGESIZE));
    const bench::Registered<bench::CountingConsumer> consumer(delay);
    std::array<Emitter, 2> emitters;
    std::array<std::thread, 2> threads;
    std::atomic<bool> stop{false};
    const auto start = Clock::now();
    for (std::size_t i = 0; i < threads.size(); ++i)
        threads[i] = std::thread([&, i] { emitters[i].Run(pause, stop); });
    std::printf("\"%s\": [", name);
    auto end = start + length;
    for (auto next = start; next <= end; next += std::chrono::milliseconds(100)) {
        std::this_thread::sleep_until(next);
        const std::uint64_t delivered = consumer->Count();
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

} // namespace

/// bench-soak SECONDS: two emitters, as fast as they can, against a consumer that keeps up; then,
/// at 200,000 events in a second, against one that manages half of that. Prints JSON.
int main(int argc, char** argv) {
    const std::chrono::seconds length(argc > 1 ? std::atoi(argv[1]) : 60);
    bench::Manager().Enable();
    bench::Manager().SetBits(Metrics::MetricsBits::act);
    std::printf("{\n");
    Run("keeps_up", length, {}, {});
    std::printf(",\n");
    Run("slow", length, std::chrono::milliseconds(1), std::chrono::microseconds(10));
    std::printf("\n}\n");
    return 0;
}
