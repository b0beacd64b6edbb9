#include "support/Process.h"
#include "support/Transcript.h"

#include <gtest/gtest.h>

#include <thread>

namespace Metrics::test {

TEST(Filter, DropsEveryKindOfEventWhoseCategoryIsOff) {
    const Transcript transcript;
    const auto bits = MetricsBits::act;
    Context context(0, 1);
    context.OpenScope();
    Scope scope("open", bits);
    transcript.Next();

    for (const std::uint64_t mask : {+MetricsBits::net, std::uint64_t{0}}) {
        Manager().SetBitsAbsolute(mask);
        EXPECT_EQ(Send("shared", 0, bits)->timestamp, 0u) << "stamped, though it was dropped";
        AttributeImpl("name", "value", bits);
        scope.EmitImpl(MetricsEventType::Custom, 1, 2);
        scope.Emit(1);
        Scope closed("closed", bits);
        EXPECT_FALSE(closed.IsOpen());
        EXPECT_EQ(transcript.Next(), "");
    }
    // Without a category, with the mask 0: not even these.
    EXPECT_EQ(Send("shared")->timestamp, 0u);
    AttributeImpl("name", "value", 0);
    context.Emit("value");
    context.AddAttribute("name", "value");
    EXPECT_EQ(Context::Create(true), 1u) << "ids are drawn all the same";
    const Context silent(0, 2);
    EmitCreateContext(3, 4);
    EXPECT_EQ(transcript.Next(), "");

    EXPECT_NE(Send(0, 0, bits, MetricsEventType::Shutdown)->timestamp, 0u);
    EXPECT_EQ(transcript.Next(), "Shutdown 0 in 0: 0, 0 &10000\n") << "passes any mask";
}

TEST(Filter, ComesBeforeAnyValueIsBuilt) {
    const Transcript transcript;
    EXPECT_NO_THROW({
        const Scope scope(NeverBuilt(), MetricsBits::act); // no context
        scope.Emit(NeverBuilt());
        Attribute(NeverBuilt(), NeverBuilt(), MetricsBits::act);
    });
    Context disabled(0, 0);
    disabled.AttachToThread();
    EXPECT_NO_THROW(Attribute(NeverBuilt(), NeverBuilt()));
    Attribute("name", 1);
    Attribute(std::string("name"), MetricsValue(1));
    EXPECT_EQ(transcript.Next(), "");
    const Context context(0, 1);
    const Scope open("open", MetricsBits::act);
    Manager().ClearBits(MetricsBits::act);
    EXPECT_NO_THROW({
        const Scope scope(NeverBuilt(), MetricsBits::act);
        scope.Emit(NeverBuilt(), NeverBuilt());
        open.Emit(NeverBuilt());
        open.Emit(1, NeverBuilt());
        Attribute(NeverBuilt(), NeverBuilt(), MetricsBits::act);
    });
    EXPECT_THROW(Attribute(NeverBuilt(), 1, MetricsBits::net), std::logic_error);
    EXPECT_THROW(Attribute(1, NeverBuilt()), std::logic_error);
}

TEST(Filter, LosesNoChangeOfTheMask) {
    Start().SetBitsAbsolute(1);
    // Each thread has a bit that the other one leaves alone.
    const auto change = [](std::uint64_t own) {
        for (int i = 0; i < Repetitions(200000); ++i) {
            ASSERT_EQ(Manager().SetBits(own) & own, 0u);
            ASSERT_TRUE(TestBits(own));
            Manager().ClearBits(own);
            ASSERT_FALSE(TestBits(own));
        }
    };
    { const std::jthread first(change, 1 << 12), second(change, 1 << 13); }
    EXPECT_EQ(Manager().SetBits(0), 1u);
}

TEST(Filter, MasksOfConsumersAreTheirOwn) {
    std::string seen;
    const Session session;
    const auto consume = [&seen](char name, std::uint64_t bits) {
        Manager().AddConsumer(MakeListener([&seen, name](const MetricsEvent&) { seen += name; }),
                              bits, true);
    };
    consume('0', 0);
    consume('n', MetricsBits::net);
    consume('b', MetricsBits::act | MetricsBits::net);
    const auto seenOf = [&seen](std::uint64_t bits) {
        Send(0, 0, bits);
        return std::exchange(seen, "");
    };
    EXPECT_EQ(seenOf(0), "0nb");
    EXPECT_EQ(seenOf(0xFFF), "0nb") << "names no category";
    EXPECT_EQ(seenOf(MetricsBits::act), "b");
    EXPECT_EQ(seenOf(MetricsBits::net), "nb");
    EXPECT_EQ(seenOf(MetricsBits::net | MetricsBits::sql), "nb");
    EXPECT_EQ(seenOf(MetricsBits::sql), "");
}

} // namespace Metrics::test
