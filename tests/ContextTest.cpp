#include "support/Process.h"
#include "support/Transcript.h"

#include <gtest/gtest.h>

#include <optional>
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

TEST(Context, StaysMuteWhenItsFirstUseIsNotRecorded) {
    const Transcript transcript;
    const std::string text = "text";
    Context plain(0, 1), moved(0, 2), values(0, 3), late(0, 4);
    transcript.Next();
    for (const std::uint64_t mask : {std::uint64_t{0}, everyBit}) {
        Manager().SetBitsAbsolute(mask);
        plain.Emit(text, 1);
        moved.Emit(std::string("text"));
        values.Emit(MetricsValue(text), MetricsValue(1));
    }
    EXPECT_EQ(transcript.Next(), "");
    late.Emit(text);
    EXPECT_NE(transcript.Next().find("Custom s1 in 4: \"text\", 0\n"), std::string::npos);
}

TEST(Context, WithANameOpensItsScopeWhenItOpens) {
    const Transcript transcript;
    {
        Context request(0, 1, "request");
        EXPECT_EQ(transcript.Next(), "Opened 1 in 0: 0, 1\n"
                                     "Attribute 0 in 1: \"'pid'\", pid\n"
                                     "Attribute 0 in 1: \"'tid'\", pid\n"
                                     "Attribute 0 in 1: \"'cid'\", 1\n"
                                     "ScopeOpened s1 in 1: \"request\", 0\n");
        request.SetName("too late");
        request.Emit("event");
        const Context unnamed(0, 2, ""), null(0, 3, static_cast<char const*>(nullptr));
        const Context disabled(0, 0, "disabled");
    }
    EXPECT_EQ(transcript.Next(), "Custom s1 in 1: \"event\", 0\n"
                                 "Opened 2 in 0: 0, 2\n"
                                 "Opened 3 in 0: 0, 3\n"
                                 "Closed 3 in 0: 0, 3\n"
                                 "Closed 2 in 0: 0, 2\n"
                                 "ScopeClosed s1 in 1: \"request\", 0\n"
                                 "Closed 1 in 0: 0, 1\n");

    // While nothing is recorded its first use is still to come, and so it is when a consumer fails.
    Manager().SetBitsAbsolute(0);
    const std::string name = "a name that is too long to be stored inside of a string";
    Context early(0, 4, name);
    Manager().SetBitsAbsolute(everyBit);
    early.OpenScope();
    EXPECT_EQ(transcript.Next(), "Attribute 0 in 4: \"'pid'\", pid\n"
                                 "Attribute 0 in 4: \"'tid'\", pid\n"
                                 "Attribute 0 in 4: \"'cid'\", 4\n"
                                 "ScopeOpened s2 in 4: \"" +
                                     name + "\", 0\n");
    bool throws = true;
    const Session session;
    Consume(true, [&throws](const MetricsEvent& event) {
        if (throws && event.eventType == MetricsEventType::ScopeOpened)
            throw std::runtime_error("refused");
    });
    Context refused(0, 5, "refused");
    EXPECT_EQ(Manager().GetCurrentThreadContext(), &refused);
    EXPECT_THROW(refused.OpenScope(), std::runtime_error);
    transcript.Next();
    throws = false;
    refused.OpenScope();
    EXPECT_EQ(transcript.Next(), "ScopeOpened s5 in 5: \"refused\", 0\n");
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
        EXPECT_EQ(transcript.Next(), "ScopeOpened s4 in 1: \"" + text + "\", 0\n");
        Flush();       // nobody else holds the label
        throws = true; // then it stays as it was
        EXPECT_THROW(scope.OpenImpl("another label that is not stored inside of a string", 0),
                     std::runtime_error);
        EXPECT_TRUE(scope.IsOpen());
        throws = false;
        transcript.Next();
    }
    EXPECT_EQ(transcript.Next(), "ScopeClosed s5 in 1: \"" + text + "\", 0\n");
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

/// A consumer closes the context when it is told of its first use: the scope that is being opened
/// closes as well.
TEST(Context, MayBeClosedWhileItsScopeOpens) {
    const Transcript transcript;
    Context* closing = nullptr;
    const Session session;
    Consume(true, [&closing](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Attribute)
            if (Context* const context = std::exchange(closing, nullptr))
                context->Close();
    });
    const Context outer(0, 1);
    Context inner(1, 2);
    transcript.Next();
    closing = &inner;
    inner.Emit("comes too late");
    EXPECT_EQ(transcript.Next(), "Attribute 0 in 2: \"'pid'\", pid\n"
                                 "Closed 2 in 1: 0, 2\n"
                                 "Attribute 0 in 1: \"'tid'\", pid\n"
                                 "Attribute 0 in 1: \"'cid'\", 2\n"
                                 "Attribute 0 in 1: \"'pid'\", pid\n"
                                 "Attribute 0 in 1: \"'tid'\", pid\n"
                                 "Attribute 0 in 1: \"'cid'\", 1\n"
                                 "ScopeOpened s1 in 1: \"cxt\", 0\n"
                                 "ScopeOpened s2 in 1: \"cxt\", 0\n"
                                 "ScopeClosed s2 in 1: \"cxt\", 0\n");
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

/// Of a thread whose contexts have parents that are larger by 10.
static std::uint64_t CurrentId() {
    const std::uint64_t parent = Manager().GetThreadContext()->GetParentMetricsContextId();
    const std::uint64_t id = Manager().GetCurrentThreadContextId();
    EXPECT_EQ(parent, id == 0 ? 0 : id + 10);
    return id;
}

TEST(Guard, PutsBackExactlyWhatWasBefore) {
    Start();
    Context p(11, 1), q(12, 2);
    OnAThread([&] {
        const ContextGuard guard(p); // the first of this thread
        EXPECT_EQ(Manager().GetCurrentThreadContext(), &p);
    });
    std::unique_ptr<Context> left;
    {
        const ContextGuard same(q);
        EXPECT_EQ(CurrentId(), 2u);
        {
            const ContextGuard lower(p);
            EXPECT_EQ(CurrentId(), 1u);
            const ContextGuard again(p), none(nullptr);
            EXPECT_EQ(CurrentId(), 1u);
            left = std::make_unique<Context>(13, 3);
            EXPECT_EQ(CurrentId(), 3u);
        }
        EXPECT_EQ(CurrentId(), 2u) << "without what was left on the stack";
    }
    EXPECT_EQ(CurrentId(), 2u) << "the owner's own entry";
    {
        Context disabled(0, 0);
        const ContextGuard nothing(disabled);
        EXPECT_FALSE(TestBitsAndContext(0));
        const ContextGuard guard(p);
        EXPECT_TRUE(TestBitsAndContext(0));
    }
    EXPECT_EQ(CurrentId(), 2u);
    q.DetachFromThread();
    EXPECT_EQ(CurrentId(), 1u) << "was there once";
}

TEST(Guard, EndsWhateverHasBecomeOfTheStack) {
    Start();
    Context p(11, 1);
    auto q = std::make_unique<Context>(12, 2);
    auto r = std::make_unique<Context>(13, 3);
    {
        const ContextGuard outer(*q); // p q r |q
        {
            const ContextGuard inner(*r); // p q r |q |r
            q->Close();                   // p r | |r
            EXPECT_EQ(CurrentId(), 3u);
            r.reset();
            EXPECT_EQ(CurrentId(), 1u) << "p | |, whose guards go on";
            const Context within(14, 4);
            EXPECT_EQ(CurrentId(), 4u);
        }
        EXPECT_EQ(CurrentId(), 1u);
        const ContextGuard another(*q); // which is closed
        EXPECT_EQ(CurrentId(), 2u);
    }
    EXPECT_EQ(CurrentId(), 1u);

    // Destroyed by another thread, with the owner's entry below one that lives.
    Context* destroyed = new Context(15, 5);
    const Context above(16, 6);
    {
        const ContextGuard guard(*destroyed);
        OnAThread([destroyed] { delete destroyed; });
        EXPECT_EQ(CurrentId(), 6u);
    }
    EXPECT_EQ(CurrentId(), 6u);

    // And so was all that was below: what the block leaves goes with it all the same.
    OnAThread([] {
        auto below = std::make_unique<Context>(18, 8);
        auto guarded = std::make_unique<Context>(19, 9);
        guarded->DetachFromThread();
        std::unique_ptr<Context> left;
        {
            const ContextGuard guard(*guarded); // 8 |9
            OnAThread([&] { below.reset(), guarded.reset(); });
            EXPECT_EQ(CurrentId(), 0u);
            left = std::make_unique<Context>(20, 10);
            EXPECT_EQ(CurrentId(), 10u);
        }
        EXPECT_EQ(CurrentId(), 0u);
    });

    // As a coroutine that suspends would: what is left behind does not outlive the next block.
    auto stray = std::make_unique<std::optional<ContextGuard>>();
    Context other(17, 7);
    {
        const ContextGuard guard(other);
        stray->emplace(p);
        OnAThread([&stray] { stray->reset(); });
        EXPECT_EQ(CurrentId(), 1u);
    }
    EXPECT_EQ(CurrentId(), 7u);
}

TEST(Guard, HasOneContextOnManyThreadsAtOnce) {
    std::atomic<int> wrong{0}, opened{0}, own{0};
    const Session session;
    Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::ScopeOpened) {
            const bool isOwn = event.param1.text != nullptr;
            (isOwn ? own : opened)++;
            wrong += !isOwn && event.contextId != std::uint64_t(event.param1.integer) ? 1 : 0;
        }
    });
    const int rounds = Repetitions(300);
    for (int i = 0; i < rounds; ++i) {
        Context first(0, 1), second(0, 2), disabled(0, 0);
        const auto work = [&] {
            const ContextGuard outer(first);
            const Scope before(1, MetricsBits::act);
            {
                const ContextGuard inner(second), none(disabled), again(second);
                const Scope within(2, MetricsBits::act);
            }
            const Scope after(1, MetricsBits::act);
        };
        const std::jthread one(work), two(work), three(work);
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(opened, rounds * 9);
    EXPECT_EQ(own, rounds * 2) << "each context's own scope opens once";
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

TEST(Handle, CarriesANameToWhereItIsOpened) {
    const Transcript transcript;
    const Context parent(0, Context::Create(true));
    const std::string name = "a name that is too long to be stored inside of a string";
    const UniqueMetricsContext unique(true, name), inert(false, name);
    const UniqueMetricsContext unopened(true, std::string_view(name).substr(0, 20));
    EXPECT_EQ(inert.Open(), nullptr);
    transcript.Next();
    OnAThread([&] {
        const auto child = unique.Open(); // as const, as a scheduler calls what it is given
        EXPECT_EQ(transcript.Next(), "Opened 2 in 1: 0, 2\n"
                                     "Attribute 0 in 2: \"'pid'\", pid\n"
                                     "Attribute 0 in 2: \"'tid'\", tid\n"
                                     "Attribute 0 in 2: \"'cid'\", 2\n"
                                     "ScopeOpened s1 in 2: \"" +
                                         name + "\", 0\n");
    });
    transcript.Next();
    {
        const SharedMetricsContext shared(true, "shared");
        EXPECT_EQ(Manager().GetCurrentThreadContext(), &parent);
        EXPECT_EQ(transcript.Next(), "Created 4 in 1: 0, 4\n"
                                     "Opened 4 in 1: 0, 4\n"
                                     "Attribute 0 in 4: \"'pid'\", pid\n"
                                     "Attribute 0 in 4: \"'tid'\", pid\n"
                                     "Attribute 0 in 4: \"'cid'\", 4\n"
                                     "ScopeOpened s2 in 4: \"shared\", 0\n");
        EXPECT_EQ(SharedMetricsContext(false, "inert").Open("child"), nullptr);
        OnAThread([copy = shared] { copy.Open("child"); });
        const std::string child = transcript.Next();
        EXPECT_NE(child.find("ScopeOpened s3 in 5: \"child\", 0\n"), child.npos) << child;
    }
    EXPECT_EQ(transcript.Next(), "ScopeClosed s2 in 4: \"shared\", 0\n"
                                 "Closed 4 in 1: 0, 4\n");
}

TEST(Handle, IsOpenedByOneOfSeveralThreads) {
    Start();
    const Context parent(0, 1);
    for (int i = 0; i < Repetitions(300); ++i) {
        const UniqueMetricsContext handle(true, "child");
        std::atomic<int> waiting{2}, opened{0};
        const auto open = [&] {
            for (--waiting; waiting != 0;)
                std::this_thread::yield();
            opened += handle.Open() != nullptr ? 1 : 0;
        };
        std::thread other(open);
        open();
        other.join();
        ASSERT_EQ(opened, 1);
    }
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
