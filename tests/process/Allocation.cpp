// Memory runs out: every allocation of every operation fails once. The event at hand is lost or the
// operation can be tried again; everything else goes on.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <dlfcn.h>

#include <new>

using namespace Metrics;
using namespace Metrics::test;

namespace {

// On this thread: how many allocations are left before some fail, and how many do. -1: none.
thread_local int t_left = -1;
thread_local int t_failing = 0;

bool Fails() {
    if (t_left < 0 || t_left-- > 0)
        return false;
    t_left = --t_failing > 0 ? 0 : -1;
    return true;
}

} // namespace

// What the library allocates with: malloc and aligned_alloc, by way of new, and TBB's own.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void* malloc(std::size_t size) noexcept {
    return Fails() ? nullptr : __libc_malloc(size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return Fails() ? nullptr : __libc_memalign(alignment, size);
}
}
namespace tbb::detail::r1 {
[[gnu::visibility("default")]] void* cache_aligned_allocate(std::size_t size) {
    if (Fails())
        throw std::bad_alloc();
    static void* const real = dlsym(RTLD_NEXT, "_ZN3tbb6detail2r122cache_aligned_allocateEm");
    return reinterpret_cast<void* (*)(std::size_t)>(real)(size);
}
} // namespace tbb::detail::r1

namespace {

/// What an operation works on, and what was delivered: the types of the events.
struct State {
    std::string delivered;
    std::int64_t last = -1;
    MetricsListenerPtr listener = MakeListener([this](const MetricsEvent& event) {
        delivered += static_cast<char>('0' + static_cast<int>(event.eventType));
        if (event.eventType == MetricsEventType::Custom && event.param1.text == nullptr)
            VERIFY(std::exchange(last, event.param1.integer) < event.param1.integer);
    });
    std::unique_ptr<UniqueMetricsContext> unique;
    std::unique_ptr<SharedMetricsContext> shared;
    std::unique_ptr<Context> context;
    std::unique_ptr<Scope> scope;
    MetricsRawClient client;
};

void OpenContext(State& s) {
    s.context = std::make_unique<Context>(0, Context::Create(true));
}
void Open(State& s) {
    OpenContext(s);
    s.unique = std::make_unique<UniqueMetricsContext>(true);
    s.shared = std::make_unique<SharedMetricsContext>(true);
}
void OpenScope(State& s) {
    Open(s);
    s.scope = std::make_unique<Scope>("a scope with a text to allocate");
}
void OpenClient(State& s) {
    VERIFY(test::Open(s.client, "/dev/null"));
}

const struct Operation {
    const char* name;
    void (*prepare)(State&); // without, it is what the thread begins with
    void (*run)(State&);
    std::string events;    // what it brings, also when it is tried again after a failure
    std::size_t slack = 0; // how many more or fewer it may bring then
} s_operations[] = {
    {"EmitEvent", nullptr, [](State&) { Send("text", "text"); }, "7"},
    {"Create", nullptr, [](State&) { Context::Create(true); }, "2"},
    {"Context", nullptr, [](State& s) { s.context = std::make_unique<Context>(1, 2); }, "3"},
    {"Emit", Open, [](State& s) { s.context->Emit("text"); }, "88857"},
    {"AddAttribute", Open, [](State& s) { s.context->AddAttribute("a", "b"); }, "8"},
    {"Close", OpenScope, [](State& s) { s.context->Close(); }, "64", 1},
    {"Scope", Open, [](State& s) { s.scope = std::make_unique<Scope>("text"); }, "88855"},
    {"Scope::Close", OpenScope, [](State& s) { s.scope->Close(); }, "6", 1},
    {"Unique", OpenContext,
     [](State& s) { s.unique = std::make_unique<UniqueMetricsContext>(true); }, "2"},
    {"Unique::Open", Open, [](State& s) { VERIFY(s.unique->Open() != nullptr); }, "34", 1},
    {"Shared", OpenContext,
     [](State& s) { s.shared = std::make_unique<SharedMetricsContext>(true); }, "23", 3},
    {"Shared::Open", Open, [](State& s) { VERIFY(s.shared->Open() != nullptr); }, "234", 1},
    {"Flush", nullptr, [](State&) { Manager().WaitUntilWritesFlushed(0); }, ""},
    {"Add", nullptr, [](State& s) { VERIFY(Manager().AddConsumer(s.listener, 0, false)); }, ""},
    {"Remove", nullptr, [](State&) { Manager().RemoveConsumer(MakeListener({})); }, ""},
    {"GetThreadContext", nullptr, [](State&) { Manager().GetThreadContext(); }, ""},
    {"Client::Open", nullptr, OpenClient, "23", 1},
    {"Client::Close", OpenClient, [](State& s) { s.client.Close(); }, "4", 1},
};

/// The n-th allocation fails; afterwards it is tried again. @return whether one has failed.
template <class Try>
bool FailsOnce(int n, Try tryIt) {
    t_left = n;
    t_failing = 1;
    for (int failures = 0;;) {
        try {
            tryIt();
            t_left = -1;
            return t_failing == 0;
        } catch (const std::exception&) {
            VERIFY(++failures == 1);
        }
    }
}

/// Lets the n-th allocation of each step fail. @return 3 when one did, 0 when there were fewer.
int RunOperation(const Operation& operation, int n) {
    State state;
    bool hasFailed = false;
    const bool startFailed = FailsOnce(n, [] { Start(); });
    VERIFY(Manager().AddConsumer(state.listener, everyBit, false));
    std::thread([&] {
        if (operation.prepare != nullptr) {
            operation.prepare(state);
            Flush();
            state.delivered.clear();
        }
        hasFailed = FailsOnce(n, [&] { operation.run(state); });
        Flush();
        const std::size_t size = state.delivered.size();
        const std::size_t expected = operation.events.size();
        if (!hasFailed || operation.slack == 0)
            VERIFY(state.delivered == operation.events);
        VERIFY(size + operation.slack >= expected && size <= expected + operation.slack);
        state.scope.reset();
        state.context.reset();
        state.client.Close();
        VERIFY(Manager().GetCurrentThreadContext() == nullptr);
    }).join();
    state.shared.reset();
    Flush();
    state.delivered.clear();
    for (int i = 0; i < 1000; ++i)
        Send(i, {}, MetricsBits::act);
    FailsOnce(n, [] { Manager().Disable(); });
    MetricsManager::ShutdownAndFreeInstance();
    VERIFY(state.delivered == std::string(1000, '7') && IsInert());
    return hasFailed || startFailed ? 3 : 0;
}

void EveryOperation() {
    for (const Operation& operation : s_operations) {
        int n = 0;
        for (int status = 3; status == 3; ++n) {
            const Ended ended = RunChild([&] { return RunOperation(operation, n); });
            status = ended.status;
            std::fputs(ended.output.c_str(), stderr);
            VERIFY((status == 0 || status == 3) && ended.output.empty());
        }
        std::printf("%s, or the start: %d allocations\n", operation.name, n - 1);
        VERIFY(n > 1);
    }
}

/// Allocations fail while the buffer grows: each costs the one event that met it. The delivery
/// begins when all stand in one buffer.
void GrowBuffer(int n, int failures) {
    State state;
    int lost = 0;
    std::atomic<bool> isFull{false};
    Manager().SetThreadInitFunction([&] { VERIFY(Poll([&] { return isFull.load(); })); });
    const Session session;
    VERIFY(Manager().AddConsumer(state.listener, everyBit, false));
    Context context(0, Context::Create(true));
    context.OpenScope();
    t_left = n;
    t_failing = failures;
    for (int i = 0; i < 100000; ++i) {
        try {
            context.Emit(i);
        } catch (const std::bad_alloc&) {
            ++lost;
        }
    }
    t_left = -1;
    isFull = true;
    Flush();
    VERIFY(lost > 0 && lost <= failures);
    VERIFY(Count(state.delivered, "7") == std::size_t(100000 - lost));
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"every allocation of every operation", EveryOperation, 600},
                     {"the first chunk", [] { GrowBuffer(0, 1); }},
                     {"a chunk, several times", [] { GrowBuffer(2, 255); }},
                     {"the directory", [] { GrowBuffer(255, 1); }},
                     {"the directory, and chunks behind it", [] { GrowBuffer(250, 1000); }}});
}
