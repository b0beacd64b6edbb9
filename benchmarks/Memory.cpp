#include "Bench.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

// Allocations are counted where they come by: operator new ends in malloc or aligned_alloc, and
// memory for many events comes from the kernel, by mmap.

namespace {

std::atomic<int> s_allocations{0};

} // namespace

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(alignment, size);
}
void* mmap(void* address, std::size_t size, int protection, int flags, int file, off_t offset) {
    static const auto next = reinterpret_cast<decltype(&mmap)>(dlsym(RTLD_NEXT, "mmap"));
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    return next(address, size, protection, flags, file, offset);
}
}

namespace {

constexpr int burst = 1'000'000;

/// Emits a burst. @return seconds.
double EmitBurst(Metrics::Context& context, int events = burst) {
    const auto start = bench::Clock::now();
    for (int i = 0; i < events; ++i)
        context.Emit(i, 0.5);
    return bench::SecondsSince(start);
}

/// Emits so many events by `call`, delivers them, and prints the allocations for each, once those
/// before have brought the library to the state in which it stays.
template <class Call>
void PrintAllocations(const char* kind, Call call) {
    constexpr int events = 20'000;
    constexpr int bursts = 5;
    for (int i = 0; i < 2 * bursts; ++i) {
        if (i == bursts)
            s_allocations = 0;
        for (int event = 0; event < events; ++event)
            call(event);
        bench::Flush();
    }
    std::printf("%s: %.4f", kind, static_cast<double>(s_allocations) / bursts / events);
}

/// What an accepted text costs that is given as characters, by the ways to give it.
void PrintTextAllocations(Metrics::Context& context) {
    const std::string text(100, 'x');
    const std::string_view view = text;
    const std::string name = "name";
    std::printf("\"text_allocations\": {");
    PrintAllocations("\"a scope's label\"",
                     [](int) { Metrics::Scope scope("label", Metrics::MetricsBits::act); });
    PrintAllocations(",\n\"an attribute's name\"",
                     [](int i) { Metrics::Attribute("name", i, Metrics::MetricsBits::act); });
    PrintAllocations(",\n\"a literal\"", [&](int i) { context.Emit("a short text", i); });
    PrintAllocations(",\n\"a `string_view` of 100 characters\"",
                     [&](int i) { context.Emit(view, i); });
    PrintAllocations(",\n\"`AddAttribute` of two strings\"",
                     [&](int) { context.AddAttribute(name, text); });
    std::printf("},\n");
}

clockid_t s_deliveryClock; // the processor time of the delivery thread

double DeliverySeconds() {
    timespec time{};
    clock_gettime(s_deliveryClock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// Returns when the library has given back the memory of what was queued before, so that this is
/// not taken for work that the next events make.
void Rest() {
    const auto start = bench::Clock::now();
    double memory = 0;
    do {
        memory = bench::ResidentMemory();
        std::this_thread::sleep_for(std::chrono::seconds(3));
    } while (bench::ResidentMemory() < memory && bench::SecondsSince(start) < 30);
}

/// Seconds of 1,000 events in a millisecond. Prints what the delivery thread works for each, in the
/// median of the seconds, and by how much more memory is resident at most in the later half of them
/// than in the earlier one.
void PrintSteadyFlow(const char* name, Metrics::Context& context) {
    constexpr std::size_t seconds = 10;
    constexpr int milliseconds = 1000;
    std::array<double, 2> most{};
    std::vector<double> worked;
    for (std::size_t second = 0; second < seconds; ++second) {
        double& memory = most.at(2 * second / seconds);
        const double before = DeliverySeconds();
        auto next = bench::Clock::now();
        for (int i = 0; i < milliseconds; ++i) {
            EmitBurst(context, 1000);
            memory = std::max(memory, bench::ResidentMemory());
            std::this_thread::sleep_until(next += std::chrono::milliseconds(1));
        }
        bench::Flush();
        worked.push_back(DeliverySeconds() - before);
    }
    std::nth_element(worked.begin(), worked.begin() + seconds / 2, worked.end());
    std::printf(R"("%s": {"delivery_ns": %.2f, "growth": %.0f})", name,
                worked.at(seconds / 2) * 1e9 / (1000.0 * milliseconds), most[1] - most[0]);
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

constexpr std::size_t recorded = 200'000; // events, four times in a row

/// What the delivery thread works for each event of two numbers, in bursts that it delivers while
/// they come; the least of four.
double DeliveryNanoseconds(Metrics::Context& context) {
    double least = 1e9;
    for (int i = 0; i < 4; ++i) {
        const double seconds = DeliverySeconds();
        EmitBurst(context, recorded);
        bench::Flush();
        least = std::min(least, (DeliverySeconds() - seconds) * 1e9 / recorded);
    }
    return least;
}

double SizeOf(const std::filesystem::path& path) {
    if (!std::filesystem::is_directory(path))
        return static_cast<double>(std::filesystem::file_size(path));
    double size = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path))
        size += static_cast<double>(entry.file_size());
    return size;
}

/// The same for a client, and what it writes for each event.
template <class Client>
void PrintClient(const char* name, const std::string& option, Metrics::Context& context) {
    const std::filesystem::path path = std::string("bench-") + name;
    std::filesystem::remove_all(path);
    Client client;
    client.SetBits("act", false);
    client.ProcessArgument(option + path.string());
    client.Open();
    const double nanoseconds = DeliveryNanoseconds(context);
    client.Close(60'000);
    std::printf(R"(,
"%s": {"delivery_ns": %.2f, "bytes": %.2f})",
                name, nanoseconds, SizeOf(path) / (4.0 * recorded));
    std::filesystem::remove_all(path);
}

void PrintPerEvent(const char* name, double sum, double events = burst) {
    std::printf("\"%s\": %.6g,\n", name, sum / events);
}

/// What queued events take, what is left of it, and what is used again. @return whether all is.
bool RunQueue(Metrics::Context& context) {
    const bench::Registered<bench::Gate> gate;
    const bench::Registered<bench::CountingConsumer> consumer;

    // Delivery is held back, so that every event stays in memory, and the queue grows.
    gate->Shut(context);
    const double before = bench::ResidentMemory();
    s_allocations = 0;
    const double seconds = EmitBurst(context);
    PrintPerEvent("growing_allocations", s_allocations);
    PrintPerEvent("growing_ns", seconds * 1e9);
    const double numbers = bench::ResidentMemory();
    PrintPerEvent("bytes", numbers - before);
    for (int i = 0; i < burst; ++i)
        context.Emit("requests", i);
    const double full = bench::ResidentMemory();
    PrintPerEvent("name_bytes", full - numbers);

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

    // Bursts that come while the one before is delivered, with the queues as large as they get.
    for (int i = 0; i < 3; ++i)
        EmitBurst(context);
    const std::uint64_t deliveredBefore = consumer->Count();
    s_allocations = 0;
    for (int i = 0; i < 10; ++i)
        EmitBurst(context);
    bench::Flush();
    const auto delivered = static_cast<double>(consumer->Count() - deliveredBefore);
    PrintPerEvent("steady_allocations", s_allocations, 10 * burst);
    std::printf("\"steady_delivered\": %.0f,\n", delivered);
    return isBounded && delivered >= 10 * burst;
}

} // namespace

/// Prints what events cost in memory and allocations, as JSON. Fails when memory is not used again.
int main() {
    bench::Manager().SetThreadInitFunction(
        [] { pthread_getcpuclockid(pthread_self(), &s_deliveryClock); });
    bench::Manager().Enable();
    bench::Manager().SetBits(Metrics::MetricsBits::act);
    Metrics::Context context(0, Metrics::Context::Create(true));
    std::printf("{\n");
    const bool isUsedAgain = RunQueue(context); // first, while no memory lies ready
    {
        const bench::Registered<bench::CountingConsumer> consumer;
        PrintTextAllocations(context);
        Rest();
        PrintSteadyFlow("to_a_consumer", context);
    }
    std::printf(",\n");
    PrintSteadyFlow("to_nobody", context);
    {
        const bench::Registered<bench::CountingConsumer> consumer;
        std::printf(",\n\"counting_ns\": %.2f", DeliveryNanoseconds(context));
    }
    PrintClient<Metrics::MetricsRawClient>("csv", "-raw=", context);
    PrintClient<Metrics::MetricsTraceClient>("trace", "-trace=", context);
    std::printf("\n}\n");
    return isUsedAgain ? 0 : 1;
}
