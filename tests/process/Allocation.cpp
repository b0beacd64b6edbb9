// Memory runs out: every allocation of every operation fails once. The event at hand is lost or the
// operation can be tried again; everything else goes on.

#include "../support/Process.h"
#include "Exercise.h"

#include <dlfcn.h>

#include <cerrno>
#include <new>
#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

// On this thread: how many allocations are left before some fail, and how many do. -1: none.
thread_local int t_left = -1;
thread_local int t_failing = 0;
thread_local int t_failed = 0;

bool Fails() {
    if (t_left < 0 || t_left-- > 0)
        return false;
    t_left = --t_failing > 0 ? 0 : -1;
    ++t_failed;
    errno = ENOMEM;
    return true;
}

} // namespace

// The C library's own functions under the names that everybody calls, and TBB's behind its own.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) noexcept {
    return Fails() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
    return Fails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) noexcept {
    return Fails() ? nullptr : __libc_realloc(memory, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return Fails() ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept {
    return (*memory = aligned_alloc(alignment, size)) == nullptr ? ENOMEM : 0;
}
}
namespace tbb::detail::r1 {
[[gnu::visibility("default")]] void* cache_aligned_allocate(std::size_t size) {
    if (Fails())
        throw std::bad_alloc();
    using Function = void* (*)(std::size_t);
    static const auto real =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZN3tbb6detail2r122cache_aligned_allocateEm"));
    return real(size);
}
} // namespace tbb::detail::r1

namespace {

/// What an operation works on, and what was delivered: the types of the events, in order.
struct State {
    std::string delivered;
    MetricsListenerPtr listener = MakeListener([this](const MetricsEvent& event) {
        delivered += static_cast<char>('0' + static_cast<int>(event.eventType));
    });
    std::unique_ptr<UniqueMetricsContext> unique;
    std::unique_ptr<SharedMetricsContext> shared;
    std::unique_ptr<Context> context;
    std::unique_ptr<Scope> scope;
    MetricsRawClient client;
};

void OpenContext(State& state) {
    state.context = std::make_unique<Context>(0, Context::Create(true));
}
void OpenScope(State& state) {
    OpenContext(state);
    state.scope = std::make_unique<Scope>("a scope with a text to allocate");
}
void OpenClient(State& state) {
    state.client.SetOutputFileName("/dev/null");
    VERIFY(state.client.Open());
}

struct Operation {
    const char* name;
    void (*prepare)(State&);
    void (*run)(State&);
    std::string events; // what it brings, also when it is tried again after a failure
    std::size_t slack;  // how many more or fewer it may bring then
};

void Nothing(State&) {}

const Operation s_operations[] = {
    {"EmitEvent", Nothing, [](State&) { EmitOne("text", "text"); }, "7", 0},
    {"Context::Create", Nothing, [](State&) { Context::Create(true); }, "2", 0},
    {"Context", Nothing, [](State& s) { s.context = std::make_unique<Context>(1, 2); }, "3", 0},
    {"Context::Emit", OpenContext, [](State& s) { s.context->Emit("text"); }, "88857", 0},
    {"Context::AddAttribute", OpenContext, [](State& s) { s.context->AddAttribute("a", "b"); }, "8",
     0},
    {"Context::Close", OpenScope, [](State& s) { s.context->Close(); }, "64", 1},
    {"Scope", OpenContext, [](State& s) { s.scope = std::make_unique<Scope>("text"); }, "88855", 0},
    {"Scope::Close", OpenScope, [](State& s) { s.scope->Close(); }, "6", 1},
    {"UniqueMetricsContext", OpenContext,
     [](State& s) { s.unique = std::make_unique<UniqueMetricsContext>(true); }, "2", 0},
    {"UniqueMetricsContext::Open",
     [](State& s) {
         OpenContext(s);
         s.unique = std::make_unique<UniqueMetricsContext>(true);
     },
     [](State& s) { VERIFY(s.unique->Open() != nullptr); }, "34", 1},
    {"SharedMetricsContext", OpenContext,
     [](State& s) { s.shared = std::make_unique<SharedMetricsContext>(true); }, "23", 3},
    {"SharedMetricsContext::Open",
     [](State& s) {
         OpenContext(s);
         s.shared = std::make_unique<SharedMetricsContext>(true);
     },
     [](State& s) { VERIFY(s.shared->Open() != nullptr); }, "234", 1},
    {"WaitUntilWritesFlushed", Nothing, [](State&) { Manager().WaitUntilWritesFlushed(0); }, "", 0},
    {"AddConsumer", Nothing, [](State& s) { VERIFY(Manager().AddConsumer(s.listener, 0, false)); },
     "", 0},
    {"RemoveConsumer", Nothing, [](State&) { Manager().RemoveConsumer(MakeListener({})); }, "", 0},
    {"GetThreadContext", Nothing, [](State&) { Manager().GetThreadContext(); }, "", 0},
    {"MetricsRawClient::Open", Nothing, OpenClient, "23", 1},
    {"MetricsRawClient::Close", OpenClient, [](State& s) { s.client.Close(); }, "4", 1},
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
            return t_failed != 0;
        } catch (const std::exception&) {
            VERIFY(++failures == 1);
        }
    }
}

/// In a process of its own, on a new thread. @return 0, or 3 when there is no n-th allocation.
int RunWithFailure(const Operation& operation, int n) {
    bool hasFailed = false;
    State state;
    {
        const Session session;
        VERIFY(Manager().AddConsumer(state.listener, ~0ull, false));
        std::thread([&] {
            if (operation.prepare != Nothing) { // else this is what the thread begins with
                operation.prepare(state);
                Manager().WaitUntilWritesFlushed(20000);
                state.delivered.clear();
            }
            hasFailed = FailsOnce(n, [&] { operation.run(state); });
            Manager().WaitUntilWritesFlushed(20000);
            const std::size_t expected = operation.events.size();
            const std::size_t slack = hasFailed ? operation.slack : 0;
            if (slack == 0 ? state.delivered != operation.events
                           : state.delivered.size() + slack < expected ||
                                 state.delivered.size() > expected + slack)
                std::fprintf(stderr, "allocation %d: %s\n", n, state.delivered.c_str());
            state.scope = nullptr;
            state.context = nullptr;
            state.client.Close();
            VERIFY(Manager().GetCurrentThreadContext() == nullptr);
            state.shared = nullptr;
        }).join();
        Manager().WaitUntilWritesFlushed(20000);
        state.delivered.clear();
        for (int i = 0; i < 1000; ++i)
            EmitOne(i, {}, MetricsBits::act);
        VERIFY(Manager().Disable() && state.delivered == std::string(1000, '7'));
    }
    return hasFailed ? 0 : 3;
}

void EveryAllocationOfEveryOperation() {
    for (const Operation& operation : s_operations) {
        for (int n = 0;; ++n) {
            const Ended ended =
                RunChild([&] { return RunWithFailure(operation, n); }, std::chrono::seconds(20));
            if (!ended.output.empty() || (ended.status != 0 && ended.status != 3))
                std::fprintf(stderr, "%s: %s\n", operation.name, ended.output.c_str());
            VERIFY(ended.output.empty());
            if (ended.status == 3) {
                std::printf("%s: %d allocations\n", operation.name, n);
                break;
            }
            VERIFY(ended.status == 0);
        }
    }
}

/// The start and the end of the library.
void StartAndEnd() {
    for (int n = 0, status = 0; status == 0; ++n) {
        const Ended ended = RunChild(
            [n] {
                const bool hasFailed = FailsOnce(n, [] { Start(); });
                State state;
                VERIFY(Manager().AddConsumer(state.listener, ~0ull, false));
                EmitOne("queued");
                std::thread([n] { FailsOnce(n, [] { Manager().Disable(); }); }).join();
                MetricsManager::ShutdownAndFreeInstance();
                VERIFY(state.delivered == "7" && IsInert());
                return hasFailed ? 0 : 3;
            },
            std::chrono::seconds(20));
        std::fputs(ended.output.c_str(), stderr);
        VERIFY(ended.status == 0 || ended.status == 3);
        status = ended.status;
    }
}

/// While a buffer grows, each failure costs the one event that met it.
void GrowingBuffer() {
    for (const int n : {0, 1, 2, 250, 300})
        for (const int failures : {1, 255, 1000}) {
            const Ended ended = RunChild(
                [n, failures] {
                    std::atomic<bool> isFull{false};
                    std::int64_t lost = 0;
                    std::int64_t delivered = 0;
                    std::int64_t last = -1;
                    // The delivery begins when everything stands in one buffer.
                    Manager().SetThreadInitFunction(
                        [&] { VERIFY(Poll([&] { return isFull.load(); })); });
                    const Session session;
                    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent& event) {
                                                     if (event.eventType !=
                                                         MetricsEventType::Custom)
                                                         return;
                                                     VERIFY(event.param1.integer > last);
                                                     last = event.param1.integer;
                                                     ++delivered;
                                                 }),
                                                 ~0ull, false));
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
                    Manager().WaitUntilWritesFlushed(20000);
                    VERIFY(lost > 0 && lost <= failures && delivered == 100000 - lost);
                    return 0;
                },
                std::chrono::seconds(60));
            std::fputs(ended.output.c_str(), stderr);
            VERIFY(ended.status == 0);
        }
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"every allocation of every operation", EveryAllocationOfEveryOperation, 600},
                     {"start and end", StartAndEnd},
                     {"growing buffer", GrowingBuffer}});
}
