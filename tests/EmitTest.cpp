#include "support/Exercise.h"
#include "support/Process.h"

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Metrics::test {

/// The texts of all events, in their order; read after a flush.
static std::vector<std::string>& NoteTexts() {
    static std::vector<std::string> texts;
    texts.clear();
    Consume(false, [](const MetricsEvent& event) {
        for (const MetricsValue* const value : {&event.param1, &event.param2})
            if (value->kind == MetricsValue::Kind::String)
                texts.push_back(*value->text);
    });
    return texts;
}

TEST(Text, ArrivesWholeWhateverItsLengthAndHoweverItIsGiven) {
    std::vector<std::string>& texts = NoteTexts();
    Context context(0, 1);
    context.OpenScope();
    const Scope scope("scope", MetricsBits::act);
    constexpr std::size_t sizes[] = {0,   1,   2,   3,   4,   7,   8,   9,   15,   16,   17,
                                     100, 103, 104, 105, 255, 256, 257, 300, 2000, 40000};
    for (const std::size_t size : sizes) {
        SCOPED_TRACE(size);
        std::string text;
        for (std::size_t i = 0; i < size; ++i)
            text += static_cast<char>('a' + i % 26);
        Flush();
        texts.clear();
        context.Emit(1, std::string_view(text));
        context.Emit(text, 2);
        context.Emit(std::string(text), 3);
        context.Emit(4, std::string(text));
        context.Emit(text.c_str(), std::string(text));
        scope.Emit(std::string(text), std::string_view(text));
        Attribute(text, std::string(text));
        Attribute(std::string(text), text, MetricsBits::act);
        context.AddAttribute(text, text);
        Send(text, MetricsValue(text));
        { const Scope labelled(text); }
        { const Scope labelled{std::string(text)}; }
        char buffer[40001] = {}; // seldom full
        text.copy(buffer, size);
        context.Emit(buffer, 5);
        Attribute(buffer, buffer);
        { const Scope labelled(buffer); }
        Flush();
        EXPECT_EQ(texts, std::vector<std::string>(25, text));
    }
    EXPECT_TRUE(Manager().Disable());
}

TEST(Text, OfALabelIsLetGoOfWhenTheScopeOpensAnew) {
    Start();
    int alive = 0;
    const auto label = [&alive] {
        MetricsValue value(std::string(200, 'x'));
        ++alive;
        value.extra = std::shared_ptr<const void>(nullptr, [&alive](const void*) { --alive; });
        return value;
    };
    const Context context(0, 1);
    {
        Scope scope;
        scope.OpenImpl(label(), 0);
        scope.OpenImpl(label(), 0);
        Flush();
        EXPECT_EQ(alive, 1) << "the label of the first opening";
        scope.Close();
        scope.OpenImpl("short", 0);
        Flush();
        EXPECT_EQ(alive, 0);
    }
    EXPECT_TRUE(Manager().Disable());
}

TEST(Context, MayBeDestroyedByAConsumerWhileItsScopeOpens) {
    std::unique_ptr<Context> context;
    Consume(true, [&context](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Attribute)
            context.reset();
    });
    context = std::make_unique<Context>(0, 1);
    { const Scope scope("the first use"); }
    EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr);
}

TEST(Context, NullMayStandInTheStack) {
    Start();
    Context context(0, 7);
    const auto stack = Manager().GetThreadContext();
    stack->AttachContext(nullptr);
    EXPECT_EQ(Manager().GetCurrentThreadContextId(), 0u);
    EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr);
    stack->DetachContext(nullptr);
    EXPECT_EQ(Manager().GetCurrentThreadContextId(), 7u);
    EXPECT_EQ(Manager().GetCurrentThreadContext(), &context);
}

TEST(Removal, EndsBetweenTwoEventsOfABatch) {
    korsys::TEvent isCalled(false), goesOn(false);
    std::atomic<bool> isRemoved{false};
    bool wasRemovedInTheBatch = false;
    Consume(false, [&](const MetricsEvent& event) {
        if (event.param1.integer == 0) {
            isCalled.Signal();
            goesOn.Wait(forever);
        } else if (event.param1.integer == 2) { // the thread has been between two calls since
            wasRemovedInTheBatch = Poll([&] { return isRemoved.load(); });
        }
    });
    const auto removed = Consume(false, [](const MetricsEvent&) {});
    for (int i = 0; i < 3; ++i)
        Send(i);
    ASSERT_TRUE(isCalled.Wait(forever));
    std::atomic<pid_t> remover{0};
    const std::jthread thread([&] {
        remover = gettid();
        EXPECT_TRUE(Manager().RemoveConsumer(removed));
        isRemoved = true;
    });
    EXPECT_TRUE(Poll([&] { return remover != 0 && IsAsleep(remover); }));
    goesOn.Signal();
    Flush();
    EXPECT_TRUE(wasRemovedInTheBatch);
}

TEST(Removal, WaitsForNothingThatIsFreed) {
    korsys::TEvent isFreeing(false);
    std::atomic<bool> isRemoved{false};
    const auto consumer = Consume(false, [](const MetricsEvent&) {});
    MetricsValue value(1);
    value.extra = std::shared_ptr<const void>(nullptr, [&](const void*) {
        isFreeing.Signal();
        EXPECT_TRUE(Poll([&] { return isRemoved.load(); })) << "the removal waits for this";
    });
    Send(std::move(value));
    AttributeImpl("other", "values", 0);
    ASSERT_TRUE(isFreeing.Wait(forever));
    EXPECT_TRUE(Manager().RemoveConsumer(consumer));
    isRemoved = true;
    Flush();
}

TEST(Shutdown, OfTheApplicationComesBehindWhatItsConsumersEmit) {
    std::vector<std::int64_t> delivered; // delivery thread only, until Disable has returned
    std::atomic<int> count{0};
    Consume(false, [&](const MetricsEvent& event) {
        delivered.push_back(event.param1.integer);
        ++count;
    });
    Consume(true, [&count](const MetricsEvent& event) {
        if (event.eventType != MetricsEventType::Shutdown)
            return;
        EXPECT_TRUE(Poll([&count] { return count == 1; })); // the delivery has been there
        Send(2);
    });
    Send(1);
    Send(0, 0, 0, MetricsEventType::Shutdown);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(delivered, (std::vector<std::int64_t>{1, 2}));
}

} // namespace Metrics::test
