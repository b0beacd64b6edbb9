#include "support/Transcript.h"

#include <stdexcept>

namespace Metrics::Testing {

/// On a thread whose id is not that of the process, so that neither can stand for the other.
template <class Body>
void OnAnotherThread(Body body) {
    const Thread thread(std::move(body));
}

/// Becomes a value when somebody asks for one.
struct NeverBuilt {
    operator MetricsValue() const { throw std::logic_error("built though the gate is shut"); }
};

TEST(Context, TellsItsLifeInOrder) {
    const auto transcript = Record();
    OnAnotherThread([] {
        Context q(0, Context::Create(true));
        Context n(1, Context::Create(7)); // any parent will do
        q.SetName("q");
        n.SetName("n");
        n.SetName(nullptr);
        n.DetachFromThread();
        n.Emit("first", -1); // while the fresh q is current
        n.SetName("late");
        n.AttachToThread();
        Manager().ClearBits(MetricsBits::rpipe);
        Scope outer(std::string("outer"), MetricsBits::act), off(NeverBuilt(), MetricsBits::rpipe);
        outer.Emit(true);
        off.Emit(NeverBuilt());
        Scope inner("inner");
        q.AttachToThread(); // once more, on top
        inner.Emit("bytes", 42ul);
        Attribute("ratio", 2.5, MetricsBits::net);
        Attribute(NeverBuilt(), NeverBuilt(), MetricsBits::rpipe);
        n.AddAttribute("goes to", "q");
        outer.Close();
        outer.Close();
        outer.Emit("late");
        inner.Close();
        n.Emit("second");
        n.Close();
        n.Close();
        n.Emit("late");
        EXPECT_EQ(Manager().GetCurrentThreadContext(), &q);
    });
    EXPECT_EQ(transcript->Take(), R"(
Created 1 in 0: 0, 1
Opened 1 in 0: 0, 1
Created 2 in 7: 0, 2
Opened 2 in 1: 0, 2
Attribute 0 in 1: "'pid'", pid
Attribute 0 in 1: "'tid'", tid
Attribute 0 in 1: "'cid'", 2
Attribute 0 in 1: "'pid'", pid
Attribute 0 in 1: "'tid'", tid
Attribute 0 in 1: "'cid'", 1
ScopeOpened s1 in 1: "q", 0
ScopeOpened s2 in 1: "n", 0
Custom s2 in 1: "first", -1
ScopeOpened s3 in 2: "outer", 0 &10000
Custom s3 in 2: true, 0 &10000
ScopeOpened s4 in 2: "inner", 0
Custom s4 in 2: "bytes", 42
Attribute 0 in 1: "ratio", 2.500000 &40000000
Attribute 0 in 1: "goes to", "q"
ScopeClosed s3 in 2: "outer", 0 &10000
ScopeClosed s4 in 2: "inner", 0
Custom s2 in 1: "second", 0
ScopeClosed s2 in 1: "n", 0
Closed 2 in 1: 0, 2
ScopeClosed s1 in 1: "q", 0
Closed 1 in 0: 0, 1
)");
}

TEST(Context, HandlesCarryChildrenToOtherThreads) {
    const auto transcript = Record();
    // Without a parent.
    EXPECT_EQ(Context::Create(false) + Context::Create(std::uint64_t{0}), 0u);
    EXPECT_EQ(UniqueMetricsContext(true).Open(), nullptr);
    EXPECT_EQ(SharedMetricsContext(true).Open(), nullptr);
    Context parent(0, Context::Create(true));
    EXPECT_EQ(UniqueMetricsContext(false).Open(), nullptr);
    EXPECT_EQ(SharedMetricsContext(false).Open(), nullptr);
    UniqueMetricsContext first(true), unique(std::move(first));
    EXPECT_EQ(first.Open(), nullptr);
    first = std::move(unique);
    EXPECT_EQ(unique.Open(), nullptr);
    unique = UniqueMetricsContext(true); // never opened
    const auto open = [](auto& handle) {
        OnAnotherThread([&handle] {
            const auto child = handle.Open();
            EXPECT_EQ(Manager().GetCurrentThreadContext(), child.get());
        });
    };
    open(first);
    EXPECT_EQ(first.Open(), nullptr);
    {
        SharedMetricsContext shared(true);
        EXPECT_EQ(Manager().GetCurrentThreadContext(), &parent);
        const SharedMetricsContext copy(shared), last(std::move(shared));
        EXPECT_EQ(shared.Open(), nullptr);
        open(copy);
        open(last);
    }
    EXPECT_EQ(transcript->Take(), R"(
Created 1 in 0: 0, 1
Opened 1 in 0: 0, 1
Created 2 in 1: 0, 2
Created 3 in 1: 0, 3
Opened 2 in 1: 0, 2
Closed 2 in 1: 0, 2
Created 4 in 1: 0, 4
Opened 4 in 1: 0, 4
Created 5 in 4: 0, 5
Opened 5 in 4: 0, 5
Closed 5 in 4: 0, 5
Created 6 in 4: 0, 6
Opened 6 in 4: 0, 6
Closed 6 in 4: 0, 6
Closed 4 in 1: 0, 4
)");
}

TEST(Context, GateAndParentFollowTheStack) {
    Context contexts[]{Context(11, 1), Context(12, 2), Context(13, 0)}; // P, Q, and R, disabled
    // After "pqr": capital letters attach, small ones detach.
    const std::pair<std::string, std::size_t> rows[] = {
        {"", 0},      {"P", 1},  {"PQ", 2},   {"PQq", 1},    {"PPp", 0},   {"PRQr", 2},
        {"PQRqr", 1}, {"Pq", 1}, {"QPQp", 2}, {"PQRpqr", 0}, {"PQPQR", 0}, {"PQPQRrq", 1}};
    for (const auto& [operations, current] : rows) {
        for (const char operation : "pqr" + operations) {
            Context& context = contexts[(operation - 'P') % 32];
            operation >= 'p' ? context.DetachFromThread() : context.AttachToThread();
        }
        Manager().SetBitsAbsolute(MetricsBits::act);
        EXPECT_EQ(Manager().GetCurrentThreadContextId(), current) << operations;
        EXPECT_EQ(Manager().GetThreadContext()->GetMetricsContextId(), current) << operations;
        const auto parent = Manager().GetThreadContext()->GetParentMetricsContextId();
        EXPECT_TRUE(current == 0 || parent == current + 10) << operations;
        EXPECT_EQ(TestBitsAndContext(0) && TestBitsAndContext(MetricsBits::act), current != 0);
        EXPECT_FALSE(TestBitsAndContext(MetricsBits::net));
        Manager().SetBitsAbsolute(0);
        EXPECT_FALSE(TestBitsAndContext(0));
        OnAnotherThread([] { EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr); });
    }
}

} // namespace Metrics::Testing
