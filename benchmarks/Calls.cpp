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
    Metrics::MetricsListenerPtr listener = korsys::MakeRefCnt<CountingConsumer>();
    std::shared_ptr<Metrics::MetricsThreadContext> stack = Manager().GetThreadContext();
    Metrics::MetricsRawClient client;
    std::string name = "name";
    std::string value = "a value of a usual length";
    std::string mnemonics = "act,net,sql";
    std::string argument = "-set=act,net,sql";
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
    const auto add = [&](const std::string& name, int maxThreads, std::uint64_t offMask, auto call,
                         Size size = {10, 2000}) {
        Register("call/" + name + "/" + libraryState, maxThreads, 5,
                 [off, offMask, call, size](benchmark::State& state) {
                     E environment; // opened while the mask lets it
                     LineUp(state);
                     if (off)
                         Manager().SetBitsAbsolute(offMask);
                     RunCalls(
                         state, size, [&](I i) { call(environment, i); }, Flush);
                     LineUp(state);
                     if (off)
                         Manager().SetBitsAbsolute(Bits::act);
                 });
    };

    add("GetInstance", 1, byMask, [](E&, I) { DoNotOptimize(&Manager()); });
    add("SetThreadInitFunction", 2, byMask, [](E&, I) { Manager().SetThreadInitFunction({}); });
    add("AddConsumer and RemoveConsumer", 2, byMask, [](E& e, I) {
        DoNotOptimize(Manager().AddConsumer(e.listener, 0, false));
        DoNotOptimize(Manager().RemoveConsumer(e.listener));
    });
    add("WaitUntilWritesFlushed", 1, byMask, [](E&, I) { Flush(); }, {10, 20});
    add("TestBits", 1, byCategory, [](E&, I) { DoNotOptimize(Metrics::TestBits(Bits::act)); });
    add("TestBits, with a consumer's bits", 1, byMask, [](E&, I i) {
        DoNotOptimize(Metrics::TestBits(static_cast<std::uint64_t>(i), Bits::act));
    });
    add("TestBitsAndContext", 1, byCategory,
        [](E&, I) { DoNotOptimize(Metrics::TestBitsAndContext(Bits::act)); });
    add("SetBits", 2, byMask, [](E&, I) { Manager().SetBits(0); });
    add("SetBits and SetBitsAbsolute", 1, byMask,
        [](E&, I) { Manager().SetBitsAbsolute(Manager().SetBits(0)); });
    add("ClearBits", 2, byMask, [](E&, I) { Manager().ClearBits(0); });
    add("GetThreadContext", 1, byMask, [](E&, I) { DoNotOptimize(Manager().GetThreadContext()); });
    add("GetCurrentThreadContext", 1, byMask,
        [](E&, I) { DoNotOptimize(Manager().GetCurrentThreadContext()); });
    add("GetCurrentThreadContextId", 1, byMask,
        [](E&, I) { DoNotOptimize(Manager().GetCurrentThreadContextId()); });
    add("GetNextContextId", 2, byMask, [](E&, I) { DoNotOptimize(Manager().GetNextContextId()); });
    add("MetricsThreadContext, attached to and detached from", 1, byMask, [](E& e, I) {
        e.stack->AttachContext(&e.context);
        DoNotOptimize(e.stack->GetMetricsContextId() + e.stack->GetParentMetricsContextId());
        e.stack->DetachContext(&e.context);
    });
    add("EmitCreateContext", 2, byMask,
        [](E&, I i) { EmitCreateContext(0, static_cast<std::uint64_t>(i) + 1); });
    add("Context::Create", 2, byMask, [](E&, I) { DoNotOptimize(Context::Create(false)); });
    add("Context, constructed and destroyed", 2, byMask, [](E& e, I i) {
        Context child(e.context.GetContextId(), static_cast<std::uint64_t>(i) + 1);
    });
    add("Context::SetName", 1, byMask, [](E& e, I) { e.context.SetName("name"); });
    add("Context, attached and detached", 1, byMask, [](E& e, I) {
        e.context.AttachToThread();
        e.context.DetachFromThread();
    });
    add("Context::OpenScope, once more", 1, byMask, [](E& e, I) { e.context.OpenScope(); });
    add("Context::Emit, one number", 2, byMask, [](E& e, I i) { e.context.Emit(i); });
    add("Context::Emit, two numbers", 2, byMask, [](E& e, I i) { e.context.Emit(i, 0.5); });
    add("Context::AddAttribute", 2, byMask,
        [](E& e, I) { e.context.AddAttribute(e.name, e.value); });
    add("Scope, opened and closed", 2, byCategory,
        [](E&, I) { Metrics::Scope scope("label", Bits::act); });
    add("Scope::Emit, two numbers", 2, byCategory, [](E& e, I i) { e.scope.Emit(i, 0.5); });
    add("Scope::EmitImpl", 2, byCategory,
        [](E& e, I i) { e.scope.EmitImpl(Metrics::MetricsEventType::Custom, i, 0.5); });
    add("AttributeImpl", 2, byCategory, [](E&, I i) { Metrics::AttributeImpl(i, 0.5, Bits::act); });
    add("Attribute, two numbers", 2, byCategory,
        [](E&, I i) { Metrics::Attribute(i, 0.5, Bits::act); });
    add("Attribute, two texts", 2, byCategory,
        [](E& e, I) { Metrics::Attribute("name", e.value, Bits::act); });
    add("MakeMetricsEvent", 2, byMask, [](E&, I) { DoNotOptimize(Metrics::MakeMetricsEvent()); });
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
    add("SharedMetricsContext, made and closed", 2, byMask,
        [](E&, I) { DoNotOptimize(Metrics::SharedMetricsContext(true)); });
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
    add("MetricsRawClient::ProcessArgument", 1, byMask,
        [](E& e, I) { DoNotOptimize(e.client.ProcessArgument(e.argument)); });
    add("MetricsRawClient, opened and closed", 1, byMask,
        [](E& e, I) {
            const std::uint64_t mask = Manager().SetBits(0);
            e.client.SetOutputFileName("/dev/null");
            DoNotOptimize(e.client.Open());
            e.client.Close();
            Manager().SetBitsAbsolute(mask);
        },
        {10, 10});
}

} // namespace bench
