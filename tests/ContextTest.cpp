#include "support/Transcript.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace Metrics::test {

static_assert(!std::is_copy_constructible_v<UniqueMetricsContext> &&
              !std::is_copy_constructible_v<Scope> && !std::is_move_constructible_v<Scope>);

/// On a thread whose id is not the process id.
template <class Body>
static void OnAThread(Body body) {
    std::thread(body).join();
}

TEST(Context, AnnouncesItsLife) {
    const Transcript transcript;
    OnAThread([&] {
        Context request(0, Context::Create(true));
        EXPECT_EQ(transcript.Next(), "Created 1 in 0: 0, 1\n"
                                     "Opened 1 in 0: 0, 1\n");
        request.SetName(nullptr); // keeps the name
        request.SetName("request");
        EXPECT_EQ(transcript.Next(), "");

        request.Emit("bytes", 42ul);
        EXPECT_EQ(transcript.Next(), "Attribute 0 in 1: \"'pid'\", pid\n"
                                     "Attribute 0 in 1: \"'tid'\", tid\n"
                                     "Attribute 0 in 1: \"'cid'\", 1\n"
                                     "ScopeOpened s1 in 1: \"request\", 0\n"
                                     "Custom s1 in 1: \"bytes\", 42\n");
        request.SetName("too late");
        request.Emit(-2.5);
        EXPECT_EQ(transcript.Next(), "Custom s1 in 1: -2.500000, 0\n");
        request.AddAttribute("goes to", "q");
        EXPECT_EQ(transcript.Next(), "Attribute 0 in 1: \"goes to\", \"q\"\n");

        request.Close();
        EXPECT_EQ(transcript.Next(), "ScopeClosed s1 in 1: \"request\", 0\n"
                                     "Closed 1 in 0: 0, 1\n");
        EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr);
        request.Close();
        request.Emit("late");
        request.OpenScope();
        EXPECT_EQ(transcript.Next(), "");
    });
    EXPECT_EQ(transcript.Next(), "");
}

TEST(Context, NeedsNoScopeToClose) {
    const Transcript transcript;
    {
        const Context child(7, Context::Create(7)); // any parent will do
        EXPECT_EQ(Manager().GetCurrentThreadContext(), &child);
    }
    EXPECT_EQ(transcript.Next(), "Created 1 in 7: 0, 1\n"
                                 "Opened 1 in 7: 0, 1\n"
                                 "Closed 1 in 7: 0, 1\n");
    Context disabled(7, 0);
    disabled.Emit("nothing");
    disabled.OpenScope();
    disabled.Close();
    EXPECT_EQ(Context::Create(0) + Context::Create(false), 0u);
    EXPECT_EQ(transcript.Next(), "");
}

TEST(Context, OpensItsScopeInWhateverContextIsCurrent) {
    const Transcript transcript;
    Context current(0, 1);
    current.OpenScope();
    Context other(0, 2);
    other.DetachFromThread();
    transcript.Next();
    other.Emit("first");
    EXPECT_EQ(transcript.Next(), "Attribute 0 in 1: \"'pid'\", pid\n"
                                 "Attribute 0 in 1: \"'tid'\", pid\n"
                                 "Attribute 0 in 1: \"'cid'\", 2\n"
                                 "ScopeOpened s2 in 1: \"cxt\", 0\n"
                                 "Custom s2 in 1: \"first\", 0\n");
    other.AttachToThread();
    other.Emit("second");
    EXPECT_EQ(transcript.Next(), "Custom s2 in 1: \"second\", 0\n") << "it stays where it opened";
    other.Close();
    EXPECT_EQ(transcript.Next(), "ScopeClosed s2 in 1: \"cxt\", 0\n"
                                 "Closed 2 in 0: 0, 2\n");
}

TEST(Scope, StaysInTheContextThatItOpenedIn) {
    const Transcript transcript;
    Context first(0, 1);
    Context second(0, 2);
    second.OpenScope();
    first.DetachFromThread();
    transcript.Next();

    Scope outer(std::string("outer"), MetricsBits::act);
    EXPECT_EQ(transcript.Next(), "ScopeOpened s2 in 2: \"outer\", 0 &10000\n");
    first.AttachToThread();
    outer.Emit(true);
    EXPECT_EQ(transcript.Next(), "Custom s2 in 2: true, 0 &10000\n");
    const Scope inner("inner"); // the first use of its context
    EXPECT_EQ(transcript.Next(), "Attribute 0 in 1: \"'pid'\", pid\n"
                                 "Attribute 0 in 1: \"'tid'\", pid\n"
                                 "Attribute 0 in 1: \"'cid'\", 1\n"
                                 "ScopeOpened s3 in 1: \"cxt\", 0\n"
                                 "ScopeOpened s4 in 1: \"inner\", 0\n");
    Attribute("ratio", 2.5, MetricsBits::net);
    EXPECT_EQ(transcript.Next(), "Attribute 0 in 1: \"ratio\", 2.500000 &40000000\n");

    EXPECT_TRUE(outer.IsOpen());
    outer.Close();
    EXPECT_EQ(transcript.Next(), "ScopeClosed s2 in 2: \"outer\", 0 &10000\n");
    EXPECT_FALSE(outer.IsOpen());
    outer.Close();
    outer.Emit("late");
    EXPECT_EQ(transcript.Next(), "");

    outer.OpenImpl("again", MetricsBits::net); // the bits are those of its making
    outer.Close();
    EXPECT_EQ(transcript.Next(), "ScopeOpened s5 in 1: \"again\", 0 &10000\n"
                                 "ScopeClosed s5 in 1: \"again\", 0 &10000\n");
}

TEST(Scope, ThatFailedToOpenIsClosedAndCanBeOpenedAgain) {
    const Transcript transcript;
    std::shared_ptr<const std::string> label;
    bool throws = false;
    const Session session;
    Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::ScopeOpened)
            label = event.param1.text;
        if (event.eventType == MetricsEventType::ScopeOpened && throws)
            throw std::runtime_error("refused");
    });
    Context context(0, 1);
    context.OpenScope();
    transcript.Next();
    throws = true;
    const std::string text = "a label that is too long to be stored inside of a string";
    EXPECT_THROW(const Scope scope(text), std::runtime_error);
    EXPECT_EQ(label.use_count(), 1) << "freed once";
    EXPECT_EQ(transcript.Next(), "ScopeOpened s2 in 1: \"" + text + "\", 0\n");
    {
        Scope scope;
        EXPECT_THROW(scope.OpenImpl(text, 0), std::runtime_error);
        EXPECT_FALSE(scope.IsOpen());
        scope.Emit("closed");
        EXPECT_EQ(label.use_count(), 1);
        EXPECT_EQ(transcript.Next(), "ScopeOpened s3 in 1: \"" + text + "\", 0\n");
        throws = false;
        scope.OpenImpl(text, 0);
        EXPECT_TRUE(scope.IsOpen());
    }
    EXPECT_EQ(transcript.Next(), "ScopeOpened s4 in 1: \"" + text +
                                     "\", 0\n"
                                     "ScopeClosed s4 in 1: \"" +
                                     text + "\", 0\n");
    Flush();
    EXPECT_EQ(label.use_count(), 1);
}

TEST(Context, GoesOnWithItsFirstUseWhereItStopped) {
    const Transcript transcript;
    int passing = 0;
    const Session session;
    Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType != MetricsEventType::ContextOpened && passing-- == 0)
            throw std::runtime_error("refused");
    });
    Context context(0, 1);
    transcript.Next();
    // What is refused was told to the first consumer all the same.
    passing = 1;
    EXPECT_THROW(context.Emit("lost"), std::runtime_error);
    EXPECT_EQ(transcript.Next(), "Attribute 0 in 1: \"'pid'\", pid\n"
                                 "Attribute 0 in 1: \"'tid'\", pid\n");
    passing = 2;
    EXPECT_THROW(Scope("lost"), std::runtime_error);
    EXPECT_EQ(transcript.Next(), "Attribute 0 in 1: \"'tid'\", pid\n"
                                 "Attribute 0 in 1: \"'cid'\", 1\n"
                                 "ScopeOpened s1 in 1: \"cxt\", 0\n");
    passing = -1;
    context.Emit("arrives");
    EXPECT_EQ(transcript.Next(), "ScopeOpened s2 in 1: \"cxt\", 0\n"
                                 "Custom s2 in 1: \"arrives\", 0\n");
}

TEST(Context, ThrowsTheFirstFailureOfItsEndAndEndsAllTheSame) {
    const Transcript transcript;
    Consume(true, [](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::ScopeClosed)
            throw std::runtime_error("the scope");
        if (event.eventType == MetricsEventType::ContextClosed)
            throw std::runtime_error("the context");
    });
    const auto failureOf = [](Context& context) -> std::string {
        try {
            context.Close();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    };
    Context used(0, 1);
    used.OpenScope();
    transcript.Next();
    EXPECT_EQ(failureOf(used), "the scope");
    EXPECT_EQ(transcript.Next(), "ScopeClosed s1 in 1: \"cxt\", 0\n"
                                 "Closed 1 in 0: 0, 1\n");
    EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr);
    EXPECT_EQ(failureOf(used), "none") << "it is closed";
    Context unused(0, 2);
    EXPECT_EQ(failureOf(unused), "the context");
    EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr);
    Context destroyed(0, 3); // whose failure is dropped
}

TEST(Context, CurrentOneIsTheTopOfTheThreadsStack) {
    Start().SetBitsAbsolute(MetricsBits::act);
    const auto expectCurrent = [](std::uint64_t id, std::uint64_t parentId) {
        EXPECT_EQ(Manager().GetCurrentThreadContextId(), id);
        EXPECT_EQ(Manager().GetThreadContext()->GetMetricsContextId(), id);
        EXPECT_EQ(Manager().GetThreadContext()->GetParentMetricsContextId(), parentId);
        EXPECT_EQ(TestBitsAndContext(0), id != 0);
        EXPECT_EQ(TestBitsAndContext(MetricsBits::act), id != 0);
        EXPECT_FALSE(TestBitsAndContext(MetricsBits::net)) << "is off";
    };
    expectCurrent(0, 0);
    Context p(11, 1);
    expectCurrent(1, 11);
    Context q(12, 2);
    expectCurrent(2, 12);
    Context disabled(13, 0);
    expectCurrent(2, 12); // it is not attached by itself
    p.AttachToThread();   // p q p
    expectCurrent(1, 11);
    q.DetachFromThread(); // p p
    expectCurrent(1, 11);
    q.DetachFromThread();
    expectCurrent(1, 11);
    p.DetachFromThread(); // both of them
    expectCurrent(0, 0);
    q.AttachToThread();
    disabled.AttachToThread(); // q disabled
    EXPECT_EQ(Manager().GetCurrentThreadContext(), &disabled);
    EXPECT_EQ(Manager().GetCurrentThreadContextId(), 0u);
    EXPECT_FALSE(TestBitsAndContext(0));
    p.AttachToThread();
    expectCurrent(1, 11);
    disabled.DetachFromThread(); // q p
    expectCurrent(1, 11);
    p.DetachFromThread();
    expectCurrent(2, 12);
    OnAThread([&] { expectCurrent(0, 0); });

    Manager().SetBitsAbsolute(0);
    EXPECT_EQ(Manager().GetCurrentThreadContextId(), 2u);
    EXPECT_FALSE(TestBitsAndContext(0));
}

TEST(Handle, CarriesAChildToAnotherThread) {
    const Transcript transcript;
    EXPECT_EQ(UniqueMetricsContext(true).Open(), nullptr) << "without a parent";
    EXPECT_EQ(SharedMetricsContext(true).Open(), nullptr);
    EXPECT_EQ(transcript.Next(), "");
    const Context parent(0, Context::Create(true));
    EXPECT_EQ(UniqueMetricsContext(false).Open(), nullptr);
    EXPECT_EQ(SharedMetricsContext(false).Open(), nullptr);
    transcript.Next();

    UniqueMetricsContext unique(true);
    EXPECT_EQ(transcript.Next(), "Created 2 in 1: 0, 2\n");
    OnAThread([&] {
        const auto child = unique.Open();
        EXPECT_EQ(Manager().GetCurrentThreadContext(), child.get());
        EXPECT_EQ(unique.Open(), nullptr) << "a second time";
        EXPECT_EQ(transcript.Next(), "Opened 2 in 1: 0, 2\n");
    });
    EXPECT_EQ(transcript.Next(), "Closed 2 in 1: 0, 2\n");
    {
        const SharedMetricsContext shared(true);
        EXPECT_EQ(Manager().GetCurrentThreadContext(), &parent);
        EXPECT_EQ(transcript.Next(), "Created 3 in 1: 0, 3\n"
                                     "Opened 3 in 1: 0, 3\n");
        OnAThread([copy = shared, &transcript] {
            const auto child = copy.Open();
            EXPECT_EQ(child->GetParentContextId(), 3u);
            EXPECT_EQ(Manager().GetCurrentThreadContext(), child.get());
            EXPECT_EQ(transcript.Next(), "Created 4 in 3: 0, 4\n"
                                         "Opened 4 in 3: 0, 4\n");
        });
        const auto another = shared.Open();
        EXPECT_EQ(transcript.Next(), "Closed 4 in 3: 0, 4\n"
                                     "Created 5 in 3: 0, 5\n"
                                     "Opened 5 in 3: 0, 5\n");
    }
    EXPECT_EQ(transcript.Next(), "Closed 5 in 3: 0, 5\n"
                                 "Closed 3 in 1: 0, 3\n");
}

TEST(Handle, MovedFromIsInert) {
    const Transcript transcript;
    const Context parent(0, 100);
    UniqueMetricsContext first(true), second(true), third(std::move(first));
    EXPECT_EQ(first.Open(), nullptr);
    third = std::move(second); // its own child goes unopened
    EXPECT_EQ(second.Open(), nullptr);
    UniqueMetricsContext& same = third;
    third = std::move(same);
    transcript.Next();
    const auto child = third.Open();
    EXPECT_EQ(transcript.Next(), "Opened 2 in 100: 0, 2\n");
    EXPECT_EQ(third.Open(), nullptr);

    SharedMetricsContext shared(true), target(true);
    transcript.Next();
    target = std::move(shared);
    EXPECT_EQ(transcript.Next(), "Closed 4 in 2: 0, 4\n");
    EXPECT_EQ(shared.Open(), nullptr);
    EXPECT_EQ(target.Open()->GetParentContextId(), 3u);
    SharedMetricsContext taken(std::move(target));
    EXPECT_EQ(target.Open(), nullptr);
    EXPECT_EQ(taken.Open()->GetParentContextId(), 3u);
}

} // namespace Metrics::test
