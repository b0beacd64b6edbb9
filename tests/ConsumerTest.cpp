#include "support/Process.h"
#include "support/Transcript.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Metrics::test {

/// Says who is called for an event: "a b | a" are the synchronous consumers, then the others.
class Calls {
public:
    /// Notes its calls; whichever way it is registered.
    MetricsListenerPtr Named(const std::string& name) {
        return MakeListener([this, name](const MetricsEvent&) {
            (gettid() == getpid() ? m_synchronous : m_asynchronous) += name + ' ';
        });
    }
    std::string Of(std::uint64_t bits) {
        Send(0, 0, bits);
        Flush();
        return std::exchange(m_synchronous, "") + "| " + std::exchange(m_asynchronous, "");
    }

private:
    std::string m_synchronous, m_asynchronous; // the second is read after a flush only
};

TEST(Consumer, IsCalledOnceForEachRegistrationInTheirOrder) {
    Calls calls;
    const auto a = calls.Named("a"), b = calls.Named("b"), c = calls.Named("c");
    EXPECT_FALSE(Manager().AddConsumer(a, everyBit, false)) << "not enabled";
    EXPECT_FALSE(Manager().RemoveConsumer(a));
    const Session session;
    EXPECT_FALSE(Manager().AddConsumer(nullptr, everyBit, true));
    EXPECT_FALSE(Manager().AddConsumer(nullptr, everyBit, false));
    EXPECT_EQ(calls.Of(0), "| ");

    EXPECT_TRUE(Manager().AddConsumer(a, everyBit, false));
    EXPECT_EQ(calls.Of(0), "| a ");
    EXPECT_TRUE(Manager().AddConsumer(b, everyBit, false));
    EXPECT_EQ(calls.Of(0), "| a b ");
    EXPECT_TRUE(Manager().AddConsumer(a, everyBit, false));
    EXPECT_EQ(calls.Of(0), "| a b a ");
    EXPECT_TRUE(Manager().AddConsumer(a, everyBit, true));
    EXPECT_EQ(calls.Of(0), "a | a b a ");
    EXPECT_TRUE(Manager().AddConsumer(b, everyBit, true));
    EXPECT_TRUE(Manager().AddConsumer(c, everyBit, true));
    EXPECT_EQ(calls.Of(0), "a b c | a b a ");

    EXPECT_TRUE(Manager().RemoveConsumer(b));
    EXPECT_EQ(calls.Of(0), "a c | a b a ") << "the synchronous one first";
    EXPECT_TRUE(Manager().RemoveConsumer(a));
    EXPECT_EQ(calls.Of(0), "c | a b a ");
    EXPECT_TRUE(Manager().RemoveConsumer(a));
    EXPECT_EQ(calls.Of(0), "c | b a ") << "the older one";
    EXPECT_TRUE(Manager().RemoveConsumer(a));
    EXPECT_EQ(calls.Of(0), "c | b ");
    EXPECT_FALSE(Manager().RemoveConsumer(a));
    EXPECT_FALSE(Manager().RemoveConsumer(nullptr));
    EXPECT_TRUE(Manager().RemoveConsumer(c));
    EXPECT_TRUE(Manager().RemoveConsumer(b));
    EXPECT_EQ(calls.Of(0), "| ");
}

TEST(Consumer, SeesTheEventsThatItsMaskLetsThrough) {
    Calls calls;
    const Session session;
    for (const bool synchronous : {true, false}) {
        Manager().AddConsumer(calls.Named("none"), 0, synchronous);
        Manager().AddConsumer(calls.Named("net"), MetricsBits::net, synchronous);
    }
    EXPECT_EQ(calls.Of(0), "none net | none net ");
    EXPECT_EQ(calls.Of(0xFFF), "none net | none net ") << "names no category";
    EXPECT_EQ(calls.Of(MetricsBits::act), "| ");
    EXPECT_EQ(calls.Of(MetricsBits::net), "net | net ");
    EXPECT_EQ(calls.Of(MetricsBits::act | MetricsBits::net), "net | net ");
}

TEST(Consumer, MustNotRegisterFromInsideOfACall) {
    std::atomic<int> calls{0};
    const Session session;
    const auto tryIt = [&calls](const MetricsEvent&) {
        const auto other = MakeListener([](const MetricsEvent&) { FAIL(); });
        EXPECT_FALSE(Manager().AddConsumer(other, everyBit, true));
        EXPECT_FALSE(Manager().AddConsumer(other, everyBit, false));
        EXPECT_FALSE(Manager().RemoveConsumer(other));
        ++calls;
    };
    const auto synchronous = Consume(true, tryIt), asynchronous = Consume(false, tryIt);
    Send(0);
    Flush();
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(Manager().RemoveConsumer(synchronous) && Manager().RemoveConsumer(asynchronous));
}

TEST(Consumer, MayEmitAndIsLeftOutOfItsOwnEvents) {
    std::string calls;
    const Transcript delivered(false);
    const Session session;
    const auto emitAs = [&calls](const std::string& name) {
        Consume(true, [&calls, name](const MetricsEvent& event) {
            if (event.eventType != MetricsEventType::Custom)
                return;
            const std::string text = *event.param1.text;
            calls += name + '(' + text + ' ';
            Send(text + name);
            calls += ')';
        });
    };
    emitAs("a");
    emitAs("b");
    Send("x");
    EXPECT_EQ(calls, "a(x b(xa ))b(x a(xb ))");
    Flush();
    EXPECT_EQ(delivered.Next(), "Custom 0 in 0: \"xab\", 0\n"
                                "Custom 0 in 0: \"xa\", 0\n"
                                "Custom 0 in 0: \"xba\", 0\n"
                                "Custom 0 in 0: \"xb\", 0\n"
                                "Custom 0 in 0: \"x\", 0\n");
}

TEST(Consumer, ThatThrowsEndsItsOwnCallAlone) {
    int before = 0, behind = 0;
    std::atomic<int> behindOnDelivery{0};
    const Session session;
    Consume(false, [](const MetricsEvent&) { throw std::runtime_error("dropped"); });
    Consume(false, [&](const MetricsEvent&) { ++behindOnDelivery; });
    Consume(true, [&](const MetricsEvent&) { ++before; });
    const auto throwing =
        Consume(true, [](const MetricsEvent&) { throw std::runtime_error("seen"); });
    Consume(true, [&](const MetricsEvent&) { ++behind; });
    EXPECT_THROW(Send(0), std::runtime_error);
    Flush();
    EXPECT_EQ(before, 1);
    EXPECT_EQ(behind, 0);
    EXPECT_EQ(behindOnDelivery, 0) << "the event is lost";
    EXPECT_TRUE(Manager().RemoveConsumer(throwing));
    Send(1);
    Flush();
    EXPECT_EQ(behind, 1);
    EXPECT_EQ(behindOnDelivery, 1);
}

TEST(Consumer, ThatThrowsReachesWhoeverEmitsButNoDestructor) {
    bool throws = false;
    const Transcript delivered(false);
    const Session session;
    Consume(true, [&throws](const MetricsEvent&) {
        if (throws)
            throw std::runtime_error("seen");
    });
    Context context(0, Context::Create(true));
    context.OpenScope();
    UniqueMetricsContext child(true);
    Flush();
    delivered.Next();
    throws = true;
    EXPECT_THROW(Send(0), std::runtime_error);
    EXPECT_THROW(AttributeImpl(0, 0, 0), std::runtime_error);
    EXPECT_THROW(context.Emit("lost"), std::runtime_error);
    EXPECT_THROW(Scope("lost"), std::runtime_error);
    EXPECT_THROW(Context::Create(true), std::runtime_error);
    EXPECT_THROW(Context(0, 8), std::runtime_error);
    EXPECT_THROW(child.Open(), std::runtime_error);
    EXPECT_THROW(UniqueMetricsContext(true), std::runtime_error);
    EXPECT_THROW(SharedMetricsContext(true), std::runtime_error);
    EXPECT_EQ(Manager().GetCurrentThreadContext(), &context);
    throws = false;
    {
        const Scope scope("scope");
        const auto opened = child.Open(); // tried again
        throws = true;
    } // neither of these is delivered
    EXPECT_EQ(Manager().GetCurrentThreadContext(), &context);
    throws = false;
    Flush();
    EXPECT_EQ(delivered.Next(), "ScopeOpened s2 in 1: \"scope\", 0\n"
                                "Opened 2 in 1: 0, 2\n");
}

TEST(Consumer, IsNotLeftBehindByAnOpenThatThrows) {
    const TemporaryFile file;
    int passing = 0;
    const Session session;
    const auto throwing = Consume(true, [&passing](const MetricsEvent&) {
        if (passing-- == 0)
            throw std::runtime_error("refused");
    });
    for (const int events : {0, 1}) { // ContextCreated, ContextOpened
        MetricsRawClient client;
        passing = events;
        EXPECT_THROW(Open(client, file.path), std::runtime_error);
        passing = -1;
        EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr);
        Send("too late");
        Flush();
        EXPECT_EQ(Count(ReadFile(file.path), "\n"), 1u) << "the header";
        EXPECT_EQ(Count(ReadFile(file.path), "too late"), 0u);
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            EXPECT_NE(std::filesystem::read_symlink(entry).filename(), file.path);
        EXPECT_TRUE(client.Open()) << "tried again";
        Send("in time");
        client.Close();
        EXPECT_EQ(Count(ReadFile(file.path), ",7,in time,0\n"), 1u);
    }
}

/// A consumer that calls everything when it is destroyed, on whatever thread that is.
static MetricsListenerPtr ConsumeUntilDestroyed(bool synchronous, std::atomic<int>& destroyed) {
    const std::shared_ptr<void> token(nullptr, [&destroyed](void*) {
        const auto other = MakeListener([](const MetricsEvent&) {});
        Manager().AddConsumer(other, everyBit, true);
        Manager().RemoveConsumer(other);
        Send(1);
        Flush();
        ++destroyed;
    });
    return Consume(synchronous, [token](const MetricsEvent&) {});
}

TEST(Consumer, MayCallTheManagerFromItsDestructor) {
    std::atomic<int> destroyed{0};
    EXPECT_TRUE(Manager().RemoveConsumer(ConsumeUntilDestroyed(true, destroyed)));
    EXPECT_EQ(destroyed, 1);
    EXPECT_TRUE(Manager().RemoveConsumer(ConsumeUntilDestroyed(false, destroyed)));
    EXPECT_EQ(destroyed, 2);
    for (const bool synchronous : {true, false, true, false, true, false})
        ConsumeUntilDestroyed(synchronous, destroyed);
    EXPECT_EQ(destroyed, 2);
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(destroyed, 8) << "consumers go when the delivery ends";
}

TEST(Consumer, MayCallTheManagerFromItsDestructorWhenTheApplicationEndsTheDelivery) {
    std::atomic<int> destroyed{0};
    ConsumeUntilDestroyed(true, destroyed);
    ConsumeUntilDestroyed(false, destroyed);
    Send(0, 0, 0, MetricsEventType::Shutdown); // the library itself is not off
    EXPECT_TRUE(Poll([&] { return destroyed == 2; }));
}

TEST(Consumer, IsReleasedByNobodyElse) {
    std::atomic<int> destroyed{0};
    std::shared_ptr<void> token(nullptr, [&destroyed](void*) { ++destroyed; });
    auto kept = Consume(false, [token](const MetricsEvent&) {});
    token = nullptr;
    EXPECT_TRUE(Manager().AddConsumer(kept, everyBit, true));
    EXPECT_TRUE(Manager().RemoveConsumer(kept));
    EXPECT_TRUE(Manager().RemoveConsumer(kept));
    EXPECT_EQ(destroyed, 0);
    kept = nullptr;
    EXPECT_EQ(destroyed, 1);
}

/// What a value carries is let go by the delivery thread, where the application's code may run.
TEST(Consumer, MayBeRegisteredByWhatAnEventCarries) {
    std::atomic<int> registered{0}, delivered{0};
    const Session session;
    const auto carrier = [&registered] {
        MetricsValue value(1);
        value.extra = std::shared_ptr<const void>(&value, [&registered](const void*) {
            const auto other = MakeListener([](const MetricsEvent&) {});
            const auto start = Clock::now();
            Flush(); // by the delivery thread: does not wait for itself
            registered += Manager().AddConsumer(other, everyBit, true) &&
                          Manager().AddConsumer(other, everyBit, false) &&
                          Manager().RemoveConsumer(other) && Manager().RemoveConsumer(other) &&
                          SecondsSince(start) < forever / 2000.0;
        });
        return value;
    };
    Consume(false, [&delivered](const MetricsEvent&) { ++delivered; });
    for (int i = 0; i < 100; ++i) {
        AttributeImpl(carrier(), 0, 0);
        Send(0, carrier());
    }
    EXPECT_TRUE(Poll([&] { return registered == 200; }));
    EXPECT_EQ(delivered, 200);
}

/// Nor does a removal wait for the code that runs then, which may wait for the removal.
TEST(Consumer, IsRemovedWhileAnEventIsLetGoOf) {
    std::atomic<bool> isRemoved{false};
    std::jthread remover;
    const Session session;
    const auto consumer = Consume(false, [](const MetricsEvent&) {});
    MetricsValue value(1);
    value.extra = std::shared_ptr<const void>(&value, [&](const void*) {
        remover = std::jthread([&] {
            EXPECT_TRUE(Manager().RemoveConsumer(consumer));
            isRemoved = true;
        });
        EXPECT_TRUE(Poll([&isRemoved] { return isRemoved.load(); }));
    });
    AttributeImpl(std::move(value), 0, 0);
    Flush();
    EXPECT_TRUE(isRemoved);
}

TEST(Consumer, LearnsWhichThreadHasEmitted) {
    std::vector<pid_t> synchronous, asynchronous;
    Consume(true, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Custom)
            synchronous.push_back(GetEventThreadId());
    });
    Consume(false, [&](const MetricsEvent&) { asynchronous.push_back(GetEventThreadId()); });
    pid_t other = 0;
    Send("here");
    std::thread([&] {
        other = gettid();
        Send("there");
    }).join();
    EXPECT_EQ(GetEventThreadId(), 0) << "outside of a call";
    EXPECT_TRUE(Manager().Disable());
    const std::vector<pid_t> emitters{gettid(), other};
    EXPECT_EQ(synchronous, emitters);
    EXPECT_EQ(asynchronous, emitters);
}

TEST(Consumer, CanBeRemovedOnceItHasComeBackFromTheCallInWhichItWasSetAside) {
    std::atomic<bool> isFree{false};
    std::atomic<int> others{0};
    const Session session;
    MetricsConsumerOptions options;
    options.maxCallMilliseconds = 20;
    const auto stuck = MakeListener([&](const MetricsEvent&) { isFree.wait(false); });
    Manager().AddConsumer(stuck, everyBit, false, options);
    Manager().AddConsumer(stuck, everyBit, false); // never inside of two calls at once
    Manager().AddConsumer(MakeListener([&](const MetricsEvent&) { ++others; }), everyBit, false);
    for (int i = 0; i < 3; ++i)
        Send(0, 0, 0);
    Flush();
    EXPECT_EQ(others, 3);
    for (const auto& consumer : Manager().GetStatistics().consumers)
        EXPECT_EQ(consumer.setAside, consumer.calls == 0) << consumer.name;

    std::atomic<pid_t> id{0};
    std::jthread remover([&] {
        id = gettid();
        EXPECT_TRUE(Manager().RemoveConsumer(stuck));
        EXPECT_TRUE(isFree) << "its call is in progress";
    });
    EXPECT_TRUE(Poll([&] { return id != 0 && IsAsleep(id); }));
    isFree = true;
    isFree.notify_all();
    remover.join();
    EXPECT_TRUE(Manager().RemoveConsumer(stuck));
    // One that may stand where the former one stood.
    const auto next = MakeListener([](const MetricsEvent&) {});
    Manager().AddConsumer(next, everyBit, false, options);
    EXPECT_TRUE(Manager().RemoveConsumer(next));
}

/// Though the delivery has ended when it comes back: it goes then, and may call the manager.
TEST(Consumer, GoesWhenItComesBackFromTheCallInWhichItWasSetAside) {
    std::atomic<bool> isFree{false}, isGone{false};
    Start();
    MetricsConsumerOptions options;
    options.maxCallMilliseconds = 20;
    {
        const std::shared_ptr<void> held(nullptr, [&isGone](void*) {
            Manager().GetStatistics();
            isGone = true;
        });
        Manager().AddConsumer(
            MakeListener([held, &isFree](const MetricsEvent&) { isFree.wait(false); }), everyBit,
            false, options);
    }
    Send(0);
    Flush();
    EXPECT_TRUE(Manager().Disable());
    EXPECT_FALSE(isGone);
    isFree = true;
    isFree.notify_all();
    EXPECT_TRUE(Poll([&] { return isGone.load(); }));
}

} // namespace Metrics::test
