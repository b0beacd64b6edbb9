#include "support/Exercise.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <utility>

namespace Metrics::test {

TEST(Consumer, IsCalledOnceForEachRegistrationInTheirOrder) {
    std::string synchronous, asynchronous; // who was called; the second is read after a flush only
    const auto named = [&](char name) {
        return MakeListener([&, name](const MetricsEvent&) {
            const bool isEmitter = gettid() == getpid();
            (isEmitter ? synchronous : asynchronous) += name;
            const auto other = MakeListener([](const MetricsEvent&) { FAIL(); });
            EXPECT_FALSE(Manager().AddConsumer(other, everyBit, true)) << "inside a call";
            EXPECT_FALSE(Manager().RemoveConsumer(other));
            if (name == 'b' && !isEmitter)
                throw "the others are called all the same";
        });
    };
    const MetricsListenerPtr consumers[] = {named('a'), named('b')};
    EXPECT_FALSE(Manager().AddConsumer(consumers[0], everyBit, false)) << "not enabled";
    EXPECT_FALSE(Start().AddConsumer(nullptr, everyBit, true));
    // Add asynchronously, Synchronously, or Remove; success; who is called then.
    const struct {
        const char* operation;
        bool done;
        std::string synchronous, asynchronous;
    } steps[] = {{"Aa", true, "", "a"},    {"Ab", true, "", "ab"},    {"Aa", true, "", "aba"},
                 {"Sa", true, "a", "aba"}, {"Sb", true, "ab", "aba"}, {"Ra", true, "b", "aba"},
                 {"Ra", true, "b", "ba"},  {"Ra", true, "b", "b"},    {"Ra", false, "b", "b"},
                 {"Rb", true, "", "b"},    {"Rb", true, "", ""}};
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        const MetricsListenerPtr& consumer = consumers[step.operation[1] - 'a'];
        const char operation = step.operation[0];
        EXPECT_EQ(step.done, operation == 'R'
                                 ? Manager().RemoveConsumer(consumer)
                                 : Manager().AddConsumer(consumer, everyBit, operation == 'S'));
        Send(0);
        Flush();
        EXPECT_EQ(std::exchange(synchronous, ""), step.synchronous);
        EXPECT_EQ(std::exchange(asynchronous, ""), step.asynchronous);
    }
    EXPECT_TRUE(Manager().AddConsumer(consumers[0], 0, true)); // no category, and a single one
    EXPECT_TRUE(Manager().AddConsumer(consumers[0], MetricsBits::net, false));
    for (const std::uint64_t bits : {std::uint64_t{0xFFF}, +MetricsBits::act, +MetricsBits::net})
        Send(0, 0, bits);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(synchronous + " " + asynchronous, "aa aa") << "three events and Shutdown";
}

TEST(Consumer, MayCallTheManagerFromItsDestructor) {
    std::atomic<int> gone{0};
    const auto make = [&gone](bool synchronous) {
        const std::shared_ptr<void> token(nullptr, [&gone](void*) {
            const auto other = MakeListener([](const MetricsEvent&) {});
            Manager().AddConsumer(other, everyBit, true);
            Manager().RemoveConsumer(other);
            Send(1);
            Flush();
            ++gone;
        });
        return Consume(synchronous, [token](const MetricsEvent&) {});
    };
    EXPECT_TRUE(Manager().RemoveConsumer(make(true)));
    EXPECT_EQ(gone, 1);
    make(true);
    make(false);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(gone, 3) << "consumers go when the delivery ends";
}

TEST(Consumer, ThatThrowsLosesTheEventAndNothingElse) {
    int passing = -1; // events that pass before all throw; -1: none throws
    Consume(true, [&passing](const MetricsEvent&) {
        if (passing == 0)
            throw 5;
        passing -= passing > 0;
    });
    std::atomic<int> delivered{0};
    Consume(false, [&delivered](const MetricsEvent&) {
        ++delivered;
        throw 6;
    });
    Context context(0, 8);
    passing = 1;
    EXPECT_THROW(context.Emit("lost"), int);
    passing = -1;
    UniqueMetricsContext child(true);
    {
        const Scope scope("scope");
        const Context closedByItsDestructor(0, 9);
        passing = 0;
        EXPECT_THROW(Send(5), int);
        EXPECT_THROW(Scope("lost"), int);
        EXPECT_THROW(child.Open(), int);
    }
    EXPECT_EQ(Manager().GetCurrentThreadContext(), &context);
    passing = -1;
    child.Open();
    passing = 0;
    EXPECT_THROW(context.Close(), int);
    MetricsRawClient client;
    EXPECT_THROW(Open(client, "/dev/null"), int);
    passing = -1;
    EXPECT_TRUE(Open(client, "/dev/null"));
    passing = 0;
    client.Close(); // does not throw
    EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(delivered, 12) << "everything was announced once, and nothing that was lost";
}

} // namespace Metrics::test
