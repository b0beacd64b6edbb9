#include "Bench.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <thread>

// Allocations are counted where they come by: operator new ends in malloc or aligned_alloc, and the
// buffers' memory comes from TBB.

namespace {

std::atomic<int> s_mallocCalls{0};
std::atomic<int> s_tbbCalls{0};

} // namespace

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
    s_mallocCalls.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    s_mallocCalls.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    s_mallocCalls.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(alignment, size);
}
}

namespace tbb::detail::r1 {
void* cache_aligned_allocate(std::size_t size);
void* cache_aligned_allocate(std::size_t size) {
    static const auto next = reinterpret_cast<void* (*)(std::size_t)>(
        dlsym(RTLD_NEXT, "_ZN3tbb6detail2r122cache_aligned_allocateEm"));
    s_tbbCalls.fetch_add(1, std::memory_order_relaxed);
    return next(size);
}
} // namespace tbb::detail::r1

namespace {

constexpr int burst = 1'000'000;

/// Emits a burst. @return seconds.
double EmitBurst(Metrics::Context& context, int events = burst) {
    const auto start = bench::Clock::now();
    for (int i = 0; i < events; ++i)
        context.Emit(i, 0.5);
    return bench::SecondsSince(start);
}

/// Bursts that are delivered only when each is complete take no more memory, however many they are.
/// @return whether that is so.
bool RunBursts(bench::Gate& gate, Metrics::Context& context) {
    double third = 0;
    double last = 0;
    for (int i = 1; i <= 15; ++i) {
        gate.Shut(context);
        EmitBurst(context, 400'000);
        gate.Open();
        bench::Flush();
        last = bench::ResidentMemory();
        third = i <= 3 ? std::max(third, last) : third;
    }
    std::printf("\"after_3_bursts\": %.0f,\n\"after_15_bursts\": %.0f,\n", third, last);
    return last < third + 8e6;
}

void PrintPerEvent(const char* name, double sum, double events = burst) {
    std::printf("\"%s\": %.6g,\n", name, sum / events);
}

} // namespace

/// Prints what an event of two numbers costs in memory and allocations, as JSON. Fails when memory
/// is not used again.
int main() {
    bench::Manager().Enable();
    bench::Manager().SetBits(Metrics::MetricsBits::act);
    const bench::Registered<bench::Gate> gate;
    const bench::Registered<bench::CountingConsumer> consumer;
    Metrics::Context context(0, Metrics::Context::Create(true));
    std::printf("{\n");

    // Delivery is held back, so that every event stays in memory, and the buffer grows.
    gate->Shut(context);
    const double before = bench::ResidentMemory();
    s_mallocCalls = s_tbbCalls = 0;
    const double seconds = EmitBurst(context);
    PrintPerEvent("growing_malloc", s_mallocCalls);
    PrintPerEvent("growing_tbb", s_tbbCalls);
    PrintPerEvent("growing_ns", seconds * 1e9);
    const double full = bench::ResidentMemory();
    PrintPerEvent("bytes", full - before);

    // What of that is still resident once all is delivered, and how soon it is given back.
    const auto left = [&] { return (bench::ResidentMemory() - before) / (full - before); };
    gate->Open();
    bench::Flush();
    const auto drained = bench::Clock::now();
    std::printf("\"left_when_drained\": %.3f,\n", left());
    while (left() > 0.05 && bench::SecondsSince(drained) < 5)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::printf("\"given_back_seconds\": %.3f,\n", bench::SecondsSince(drained));
    std::printf("\"left_at_last\": %.3f,\n", left());

    const bool isBounded = RunBursts(*gate.operator->(), context);

    // A text is allocated by its event, and its characters once more where they do not fit in.
    constexpr int texts = 10'000;
    s_mallocCalls = s_tbbCalls = 0;
    for (int i = 0; i < texts; ++i)
        context.Emit("a short text", i);
    PrintPerEvent("short_text_allocations", s_mallocCalls + s_tbbCalls, texts);
    s_mallocCalls = s_tbbCalls = 0;
    for (int i = 0; i < texts; ++i)
        context.Emit("a text that is too long to be stored inside of a string", i);
    PrintPerEvent("long_text_allocations", s_mallocCalls + s_tbbCalls, texts);
    bench::Flush();

    // Bursts that come while the one before is delivered, with the buffers as large as they get.
    for (int i = 0; i < 3; ++i)
        EmitBurst(context);
    const std::uint64_t deliveredBefore = consumer->Count();
    s_mallocCalls = s_tbbCalls = 0;
    for (int i = 0; i < 10; ++i)
        EmitBurst(context);
    bench::Flush();
    const auto delivered = static_cast<double>(consumer->Count() - deliveredBefore);
    PrintPerEvent("steady_malloc", s_mallocCalls, 10 * burst);
    PrintPerEvent("steady_tbb", s_tbbCalls, 10 * burst);
    std::printf("\"steady_delivered\": %.0f\n}\n", delivered);
    return isBounded && delivered >= 10 * burst ? 0 : 1;
}
