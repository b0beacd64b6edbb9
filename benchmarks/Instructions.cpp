#include <metrics/Metrics.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

// For callgrind, which is told to count inside of one of these functions only; see
// check-instructions. They hold what the compiler puts into the calling code, and are not inlined
// themselves.

[[gnu::noinline]] void CountFiltered(std::int64_t value) {
    Metrics::Attribute("name", value, Metrics::MetricsBits::net);
}

[[gnu::noinline]] void CountAccepted(Metrics::Context& context, std::int64_t value) {
    context.Emit(value, 0.5);
}

[[gnu::noinline]] void CountTexts() {
    Metrics::Attribute("name", "some value", Metrics::MetricsBits::act);
}

namespace {

// Fewer than the buffers keep room for when they rest: none has to grow while it is counted.
constexpr std::int64_t countedCalls = 2000;

} // namespace

/// bench-instructions filtered|accepted|texts. Prints the number of counted calls.
int main(int argc, char** argv) {
    const char* const what = argc > 1 ? argv[1] : "filtered";
    const bool accepted = std::strcmp(what, "accepted") == 0;
    const bool texts = std::strcmp(what, "texts") == 0;
    Metrics::MetricsManager& manager = *Metrics::MetricsManager::GetInstance();
    manager.Enable();
    manager.SetBits(Metrics::MetricsBits::act);
    Metrics::Context context(0, Metrics::Context::Create(true));
    for (int buffer = 0; buffer < 4; ++buffer) { // both buffers grow
        for (std::int64_t i = 0; i < countedCalls + 500; ++i)
            texts ? Metrics::Attribute("name", "some value", Metrics::MetricsBits::act)
                  : context.Emit(i, 0.5);
        manager.WaitUntilWritesFlushed(60'000);
    }
    for (std::int64_t i = 0; i < countedCalls; ++i)
        texts ? CountTexts() : accepted ? CountAccepted(context, i) : CountFiltered(i);
    std::printf("%lld\n", static_cast<long long>(countedCalls));
    manager.Disable();
    return 0;
}
