#include "Bench.h"

namespace bench {

namespace {

using benchmark::DoNotOptimize;
using Metrics::Context;

namespace Bits = Metrics::MetricsBits;
namespace BitsUtils = Metrics::MetricsBitsUtils;

/// What the calls use; one for each thread.
struct Environment {
    Context context{0, Context::Create(true)};
    Metrics::Scope scope{"scope", Bits::act};
    Metrics::SharedMetricsContext shared{true};
    std::string name = "name";
    std::string value = "a value of a usual length";
    std::string mnemonics = "act,net,sql";
};

/// The mask that switches a call off: that of another category, or for calls whose events have none
/// the empty one.
constexpr std::uint64_t byCategory = Bits::net;
constexpr std::uint64_t byMask = 0;

} // namespace

void RegisterCalls(const std::string& libraryState) {
    using E = Environment;
    using I = std::int64_t;
    const bool off = libraryState == "off";
    const auto add = [&](const std::string& name, int maxThreads, std::uint64_t offMask,
                         auto call) {
        Register("call/" + name + "/" + libraryState, maxThreads, 5,
                 [off, offMask, call](benchmark::State& state) {
                     E environment; // opened while the mask lets it
                     LineUp(state);
                     if (off)
                         Manager().SetBitsAbsolute(offMask);
                     RunCalls(
                         state, {10, 2000}, [&](I i) { call(environment, i); }, Flush);
                     LineUp(state);
                     if (off)
                         Manager().SetBitsAbsolute(Bits::act);
                 });
    };

    add("GetInstance", 1, byMask, [](E&, I) { DoNotOptimize(&Manager()); });
    add("TestBits", 1, byCategory, [](E&, I) { DoNotOptimize(Metrics::TestBits(Bits::act)); });
    add("TestBitsAndContext", 1, byCategory,
        [](E&, I) { DoNotOptimize(Metrics::TestBitsAndContext(Bits::act)); });
    add("SetBits", 2, byMask, [](E&, I) { Manager().SetBits(0); });
    add("GetCurrentThreadContextId", 1, byMask,
        [](E&, I) { DoNotOptimize(Manager().GetCurrentThreadContextId()); });
    add("GetNextContextId", 2, byMask, [](E&, I) { DoNotOptimize(Manager().GetNextContextId()); });
    add("Context::Create", 2, byMask, [](E&, I) { DoNotOptimize(Context::Create(false)); });
    add("Context, constructed and destroyed", 2, byMask, [](E& e, I i) {
        Context child(e.context.GetContextId(), static_cast<std::uint64_t>(i) + 1);
    });
    add("Context::Emit, two numbers", 2, byMask, [](E& e, I i) { e.context.Emit(i, 0.5); });
    add("Context::AddAttribute", 2, byMask,
        [](E& e, I) { e.context.AddAttribute(e.name, e.value); });
    add("Scope, opened and closed", 2, byCategory,
        [](E&, I) { Metrics::Scope scope("label", Bits::act); });
    add("Scope::Emit, two numbers", 2, byCategory, [](E& e, I i) { e.scope.Emit(i, 0.5); });
    add("Attribute, two numbers", 2, byCategory,
        [](E&, I i) { Metrics::Attribute(i, 0.5, Bits::act); });
    add("Attribute, two texts", 2, byCategory,
        [](E& e, I) { Metrics::Attribute("name", e.value, Bits::act); });
    add("MakeMetricsEvent and EmitEvent", 2, byCategory, [](E&, I i) {
        auto event = Metrics::MakeMetricsEvent();
        event->eventType = Metrics::MetricsEventType::Custom;
        event->bits = Bits::act;
        event->param1 = i;
        event->param2 = 0.5;
        Manager().EmitEvent(std::move(event));
    });
    add("UniqueMetricsContext, made, opened and closed", 2, byMask,
        [](E&, I) { DoNotOptimize(Metrics::UniqueMetricsContext(true).Open()); });
    add("SharedMetricsContext::Open, and closed", 2, byMask,
        [](E& e, I) { DoNotOptimize(e.shared.Open()); });
    add("AppUpTime", 1, byMask, [](E&, I) { DoNotOptimize(Metrics::AppUpTime()); });
    add("CurrentUnixTime", 1, byMask, [](E&, I) {
        std::uint64_t seconds = 0;
        std::uint32_t microseconds = 0;
        Metrics::CurrentUnixTime(&seconds, &microseconds);
        DoNotOptimize(seconds);
        DoNotOptimize(microseconds);
    });
    add("GetMetricsBitsFromMnemonicList", 1, byMask,
        [](E& e, I) { DoNotOptimize(BitsUtils::GetMetricsBitsFromMnemonicList(e.mnemonics)); });
    add("ValidateMnemonicList", 1, byMask,
        [](E& e, I) { DoNotOptimize(BitsUtils::ValidateMnemonicList(e.mnemonics)); });
    add("MetricsBitsToMnemonicList", 1, byMask,
        [](E&, I) { DoNotOptimize(BitsUtils::MetricsBitsToMnemonicList(Bits::act | Bits::net)); });
}

} // namespace bench
