// What became of every event, in mixes of emitters, consumers, limits, failed allocations and ends:
// the ledger must add up to the last event, and agree with what everybody has counted for himself.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <cstdlib>
#include <latch>
#include <new>
#include <random>

using namespace Metrics;
using namespace Metrics::test;

namespace {

// On this thread: how many allocations there are until one fails, again and again. 0: none does.
thread_local unsigned int t_failing = 0, t_untilFailure = 0;

} // namespace

// The library allocates by it, whatever sanitizer stands behind malloc.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (t_failing != 0 && --t_untilFailure == 0) {
        t_untilFailure = t_failing;
        throw std::bad_alloc();
    }
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

class Random {
public:
    explicit Random(std::uint64_t seed) : m_engine(seed) {}
    std::uint64_t Below(std::uint64_t bound) { return m_engine() % bound; }
    bool OneIn(std::uint64_t n) { return Below(n) == 0; }

private:
    std::mt19937_64 m_engine;
};

struct Refused {};

enum class Ending : std::uint8_t { Disable, Shutdown, Free, Event };

/// What one seed stands for.
struct Mix {
    explicit Mix(Random random)
        : limit(random.OneIn(4) ? 0 : std::uint64_t{4096} << random.Below(9)),
          policy(static_cast<MetricsQueuePolicy>(random.Below(3))),
          ending(static_cast<Ending>(random.Below(4))),
          emitters(1 + random.Below(4)),
          events((policy == MetricsQueuePolicy::Wait ? 20 : 100) + random.Below(200)),
          failing(random.OneIn(3) ? 2 + static_cast<unsigned int>(random.Below(20)) : 0),
          throwing(random.OneIn(3) ? 2 + random.Below(20) : 0),
          isSynchronous(random.OneIn(2)),
          isNested(random.OneIn(3)),
          isSlow(random.OneIn(2)),
          asynchronousThrows(random.OneIn(3)),
          holdsObjects(random.OneIn(4)),
          endsAmidst(random.OneIn(2)) {}

    std::uint64_t limit;
    MetricsQueuePolicy policy;
    Ending ending;
    std::uint64_t emitters, events;
    unsigned int failing;
    std::uint64_t throwing;
    bool isSynchronous, isNested, isSlow, asynchronousThrows;
    bool holdsObjects; // values emit when they are destroyed
    bool endsAmidst;   // the library ends while the emitters emit
};

/// What everybody has counted for himself.
struct Tally {
    std::atomic<bool> isEnding{false};
    std::atomic<std::uint64_t> begun{0}, certain{0}; // emits, and those that ended before the end
    std::atomic<std::uint64_t> refused{0}, withoutMemory{0};
    std::atomic<std::uint64_t> delivered{0}, toldAsLost{0};
};

template <class Emit>
void Counted(Tally& tally, unsigned int failing, Emit emit) {
    const auto outer = std::exchange(t_failing, failing);
    if (t_untilFailure == 0)
        t_untilFailure = failing;
    ++tally.begun;
    try {
        emit();
    } catch (const std::bad_alloc&) {
        ++tally.withoutMemory;
    } catch (const Refused&) {
        ++tally.refused;
    }
    t_failing = outer;
    if (!tally.isEnding)
        ++tally.certain;
}

void EmitOne(const Mix& mix, Random& random, Tally& tally) {
    const std::string text(random.OneIn(4) ? 257 + random.Below(3000) : random.Below(40), 'x');
    MetricsValue value(text);
    if (mix.holdsObjects && random.OneIn(4))
        value.extra = std::shared_ptr<const void>(
            &tally, [&tally](const void*) { Counted(tally, 0, [] { AttributeImpl(3, 4, 0); }); });
    const auto event = MakeMetricsEvent();
    event->eventType = MetricsEventType::Custom;
    event->param2 = value;
    const auto way = random.Below(5);
    Counted(tally, mix.failing, [&] {
        if (way == 0)
            Manager().EmitEvent(event);
        else if (way == 1)
            AttributeImpl(std::move(value), 1, 0);
        else if (way == 2)
            Attribute(text, text); // into the queue, or into memory that the library takes
        else
            AttributeImpl(way, std::uint64_t{1}, 0);
    });
}

void Register(const Mix& mix, std::uint64_t seed, Tally& tally) {
    if (mix.isSynchronous) {
        if (mix.isNested)
            Consume(true, [&](const MetricsEvent&) {
                Counted(tally, mix.failing, [] { AttributeImpl(1, 2, 0); });
            });
        if (mix.throwing != 0)
            Consume(true, [&, calls = std::make_shared<std::atomic<std::uint64_t>>(seed)](
                              const MetricsEvent&) {
                if (++*calls % mix.throwing == 0)
                    throw Refused();
            });
    }
    if (mix.asynchronousThrows)
        Consume(false, [](const MetricsEvent&) { throw Refused(); });
    Consume(false, [&](const MetricsEvent& event) {
        const auto end = Clock::now() + std::chrono::microseconds(mix.isSlow ? 10 : 0);
        if (event.eventType == MetricsEventType::Custom && event.param1.text != nullptr)
            tally.toldAsLost += static_cast<std::uint64_t>(event.param2.integer);
        else
            ++tally.delivered;
        while (mix.isSlow && Clock::now() < end) {}
    });
}

void Balance(const MetricsStatistics& now, const Mix& mix, const Tally& tally) {
    VERIFY(now.accepted == now.delivered + now.queued + now.lostToLimit + now.lostToMemory +
                               now.lostToException + now.lostToShutdown);
    VERIFY(now.lostToMemory == tally.withoutMemory);
    VERIFY(now.lostToException == tally.refused);
    VERIFY(now.delivered == tally.delivered);
    VERIFY(now.queued == 0);
    VERIFY(now.queuedBytes == 0);
    VERIFY(now.oldestNanoseconds == 0);
    VERIFY(now.accepted >= tally.certain);
    VERIFY(now.accepted <= tally.begun);
    VERIFY(tally.toldAsLost <= now.lostToLimit);
    VERIFY(mix.limit != 0 || now.lostToLimit == 0);
    VERIFY(now.peakQueuedBytes <= (mix.limit == 0 ? ~mix.limit : mix.limit + mix.limit / 20));
}

void End(Ending ending) {
    if (ending == Ending::Disable)
        Manager().Disable();
    else if (ending == Ending::Shutdown)
        VERIFY(Manager().Shutdown(20'000).ended);
    else if (ending == Ending::Free)
        MetricsManager::ShutdownAndFreeInstance();
    else
        try {
            Send(0, 0, 0, MetricsEventType::Shutdown);
        } catch (const Refused&) {} // then it ends nothing
}

void RunMix(std::uint64_t seed) {
    const Mix mix{Random(seed)};
    Tally tally;
    Manager().SetQueueLimit(mix.limit, mix.policy, static_cast<unsigned int>(seed % 3));
    Start();
    // Texts are copied by those who have a context. They close when the library is off.
    std::vector<std::unique_ptr<Context>> contexts(mix.emitters);
    std::latch haveContexts(static_cast<std::ptrdiff_t>(mix.emitters)), begin(1);
    std::atomic<std::uint64_t> emitted{0};
    std::vector<std::jthread> emitters;
    for (std::uint64_t i = 0; i < mix.emitters; ++i)
        emitters.emplace_back([&, i] {
            contexts[i] = std::make_unique<Context>(0, Context::Create(true));
            contexts[i]->OpenScope();
            haveContexts.count_down();
            begin.wait();
            Random random(seed * 4 + i);
            for (std::uint64_t n = 0; n < mix.events; ++n, ++emitted)
                EmitOne(mix, random, tally);
        });
    haveContexts.wait();
    Flush();
    const MetricsStatistics before = Manager().GetStatistics();
    tally.delivered = tally.begun = tally.certain = before.accepted;
    VERIFY(before.accepted == before.delivered);
    Register(mix, seed, tally);
    begin.count_down();
    if (mix.endsAmidst) {
        const std::uint64_t when = mix.emitters * mix.events / 2;
        VERIFY(Poll([&] { return emitted >= when; }));
    } else {
        emitters.clear();
        Flush();
        if (!mix.holdsObjects) {
            const MetricsStatistics now = Manager().GetStatistics();
            Balance(now, mix, tally);
            VERIFY(now.accepted == tally.begun);
            VERIFY(tally.toldAsLost == now.lostToLimit);
            VERIFY(now.lostToShutdown == 0);
        }
    }
    tally.isEnding = true;
    End(mix.ending);
    emitters.clear();
    MetricsShutdownReport report;
    VERIFY(Poll([&report] { return (report = Manager().Shutdown(0)).ended; }));
    Balance(report.statistics, mix, tally);
    VERIFY(report.stuckConsumer == "");
    VERIFY(report.statistics.consumers.size() == Manager().GetStatistics().consumers.size());
    // What was queued behind the end stays there, where LeakSanitizer sees nobody who refers to it.
    if (report.statistics.lostToShutdown > 0)
        _exit(0);
}

/// A failure names its seed, and `ledger_test Mixes` with LEDGER_SEED=seed runs that one alone.
void Mixes() {
    const char* const only = std::getenv("LEDGER_SEED");
    const auto begin = only == nullptr ? 1 : std::strtoull(only, nullptr, 10);
    const auto count = only == nullptr ? static_cast<std::uint64_t>(Repetitions(2000)) : 1;
    std::uint64_t failed = 0;
    for (std::uint64_t seed = begin; seed < begin + count; ++seed) {
        const Ended ended = RunChild([seed] { return RunMix(seed), 0; }, std::chrono::seconds(60));
        if (ended.status != 0) {
            std::printf("seed %llu: status %d\n%s", static_cast<unsigned long long>(seed),
                        ended.status, ended.output.c_str());
            ++failed;
        }
    }
    VERIFY(failed == 0);
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv, {{"Mixes", Mixes, 900}});
}
