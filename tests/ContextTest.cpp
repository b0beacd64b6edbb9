#include "support/Exercise.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace Metrics::test {

/// Has events written down as lines such as `ScopeOpened s1 in 2: "cxt", 0 &10000`, with the bits
/// unless they are 0. Scopes are named s1, s2 and so on as they open; own ids show as pid and tid.
static std::shared_ptr<std::ostringstream> Record() {
    const auto text = [](const MetricsValue& value) {
        if (value.kind == MetricsValue::Kind::String)
            return '"' + *value.text + '"';
        const bool isDouble = value.kind == MetricsValue::Kind::Double;
        return isDouble ? std::to_string(value.number) : std::to_string(value.integer);
    };
    const auto lines = std::make_shared<std::ostringstream>();
    *lines << '\n';
    std::map<std::uint64_t, std::uint64_t> scopes;
    Consume(true, [text, lines, scopes](const MetricsEvent& event) mutable {
        constexpr const char* types[] = {"?",           "Shutdown", "Created",
                                         "Opened",      "Closed",   "ScopeOpened",
                                         "ScopeClosed", "Custom",   "Attribute"};
        if (event.eventType == MetricsEventType::ScopeOpened)
            scopes[event.sourceId] = scopes.size() + 1;
        const bool isScope = scopes.count(event.sourceId) != 0;
        std::string second = text(event.param2);
        if (second == std::to_string(getpid()) || second == std::to_string(gettid()))
            second = second == std::to_string(getpid()) ? "pid" : "tid";
        *lines << types[static_cast<int>(event.eventType)] << (isScope ? " s" : " ")
               << (isScope ? scopes[event.sourceId] : event.sourceId) << " in " << event.contextId
               << ": " << text(event.param1) << ", " << second;
        if (event.bits != 0)
            *lines << " &" << std::hex << event.bits << std::dec;
        *lines << '\n';
    });
    return lines;
}

static_assert(!std::is_copy_constructible_v<UniqueMetricsContext> &&
              !std::is_copy_constructible_v<Scope> && !std::is_move_constructible_v<Scope>);

struct NeverBuilt {
    operator MetricsValue() const { throw std::logic_error("built though the gate is shut"); }
};

TEST(Context, TellsItsLifeInOrder) {
    const auto transcript = Record();
    std::thread([] { // whose id is not the process id
        Context q(0, Context::Create(true));
        Context n(1, Context::Create(7)); // any parent will do
        q.SetName("q");
        n.SetName("n");
        n.DetachFromThread();
        n.Emit("first", -1); // while the fresh q is current
        n.SetName(nullptr);
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
        Scope plain;
        plain.OpenImpl("plain", MetricsBits::act); // the bits are those of its making
        outer.Close();
        outer.Emit("late");
        inner.Close();
        Context never(1, 9);
        for (Context* const context : {&never, &n}) {
            context->Close();
            context->Close();
            context->Emit("late");
        }
        EXPECT_EQ(Manager().GetCurrentThreadContext(), &q);
    })
        .join();
    EXPECT_EQ(transcript->str(), R"(
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
Custom s3 in 2: 1, 0 &10000
ScopeOpened s4 in 2: "inner", 0
Custom s4 in 2: "bytes", 42
Attribute 0 in 1: "ratio", 2.500000 &40000000
Attribute 0 in 1: "goes to", "q"
ScopeOpened s5 in 1: "plain", 0
ScopeClosed s3 in 2: "outer", 0 &10000
ScopeClosed s4 in 2: "inner", 0
Opened 9 in 1: 0, 9
Closed 9 in 1: 0, 9
ScopeClosed s2 in 1: "n", 0
Closed 2 in 1: 0, 2
ScopeClosed s5 in 1: "plain", 0
ScopeClosed s1 in 1: "q", 0
Closed 1 in 0: 0, 1
)");
}

TEST(Context, HandlesCarryChildrenToOtherThreads) {
    Manager().Enable();
    EXPECT_EQ(UniqueMetricsContext(true).Open(), nullptr) << "without a parent";
    EXPECT_EQ(SharedMetricsContext(true).Open(), nullptr);
    Context parent(0, Context::Create(true)); // 1
    EXPECT_EQ(UniqueMetricsContext(false).Open(), nullptr);
    UniqueMetricsContext first(true), unique(std::move(first)); // 2
    SharedMetricsContext second(true);                          // 3
    const SharedMetricsContext copy(second), shared(std::move(second));
    EXPECT_EQ(first.Open(), nullptr);
    EXPECT_EQ(second.Open(), nullptr);
    const auto open = [](auto& handle, std::uint64_t id, std::uint64_t parentId) {
        std::jthread([&] {
            const auto child = handle.Open();
            EXPECT_EQ(Manager().GetCurrentThreadContext(), child.get());
            EXPECT_EQ(child->GetContextId(), id);
            EXPECT_EQ(child->GetParentContextId(), parentId);
        });
    };
    open(unique, 2, 1);
    EXPECT_EQ(unique.Open(), nullptr);
    open(copy, 4, 3);
    open(shared, 5, 3);
}

TEST(Context, GateAndParentFollowTheStack) {
    Context contexts[]{Context(11, 1), Context(12, 2), Context(13, 0)}; // P, Q, and R, disabled
    // After "pqr": capital letters attach, small ones detach.
    const std::pair<std::string, std::size_t> rows[] = {
        {"", 0},      {"P", 1},  {"PQq", 1},  {"PPp", 0},   {"PRQr", 2},
        {"PQRqr", 1}, {"Pq", 1}, {"QPQp", 2}, {"PQPQR", 0}, {"PQPQRrq", 1}};
    for (const auto& [operations, current] : rows) {
        for (const char operation : "pqr" + operations) {
            Context& context = contexts[(operation - 'P') % 32];
            operation >= 'p' ? context.DetachFromThread() : context.AttachToThread();
        }
        Manager().SetBitsAbsolute(MetricsBits::act);
        EXPECT_EQ(Manager().GetCurrentThreadContextId(), current) << operations;
        const auto parent = Manager().GetThreadContext()->GetParentMetricsContextId();
        EXPECT_TRUE(current == 0 || parent == current + 10) << operations;
        EXPECT_EQ(TestBitsAndContext(MetricsBits::act), current != 0);
        EXPECT_FALSE(TestBitsAndContext(MetricsBits::net));
        Manager().SetBitsAbsolute(0);
        EXPECT_FALSE(TestBitsAndContext(0));
    }
}

} // namespace Metrics::test
