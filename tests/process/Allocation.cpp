// Memory runs out: every allocation of every operation fails once. The event at hand is lost or the
// operation can be tried again; everything else goes on.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <set>

using namespace Metrics;
using namespace Metrics::test;

namespace {

// On this thread: how many allocations are left before some fail, and how many do. -1: none.
thread_local int t_left = -1;
thread_local int t_failing = 0;
thread_local int t_allocations = 0; // so far

bool Fails() {
    ++t_allocations;
    if (t_left < 0 || t_left-- > 0)
        return false;
    t_left = --t_failing > 0 ? 0 : -1;
    errno = ENOMEM;
    return true;
}

bool IsTheLibrarys(const void* code) {
    Dl_info info;
    return dladdr(code, &info) != 0 && std::strstr(info.dli_fname, "libmetrics.") != nullptr;
}

} // namespace

// What the library may allocate with: malloc and aligned_alloc, by way of new, and the kernel's.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void* malloc(std::size_t size) noexcept {
    return Fails() ? nullptr : __libc_malloc(size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return Fails() ? nullptr : __libc_memalign(alignment, size);
}
void* mmap(void* address, std::size_t size, int protection, int flags, int file,
           off_t offset) noexcept {
    constexpr int memory = MAP_PRIVATE | MAP_ANONYMOUS;
    if (t_left >= 0 && (flags & memory) == memory && IsTheLibrarys(__builtin_return_address(0)) &&
        Fails())
        return MAP_FAILED;
    return reinterpret_cast<void*>(
        syscall(SYS_mmap, address, size, protection, flags, file, offset));
}
}

namespace {

using enum MetricsEventType;
using Events = std::vector<MetricsEventType>;

/// What an operation works on, and what was delivered.
struct State {
    Events delivered;
    std::set<std::pair<MetricsEventType, std::uint64_t>> announced; // with the id, or the address
    std::int64_t last = -1;
    MetricsListenerPtr listener = MakeListener([this](const MetricsEvent& event) {
        delivered.push_back(event.eventType);
        if (event.eventType != Custom && event.eventType != Attribute)
            VERIFY(announced.emplace(event.eventType, event.sourceId).second);
        if (event.eventType == Custom && event.param1.text == nullptr)
            VERIFY(std::exchange(last, event.param1.integer) < event.param1.integer);
    });
    std::unique_ptr<UniqueMetricsContext> unique;
    std::unique_ptr<SharedMetricsContext> shared;
    std::unique_ptr<Context> context;
    std::unique_ptr<Scope> scope;
    MetricsRawClient client;
    MetricsTraceClient trace;
};

const std::string s_folder = "test." + std::to_string(getpid()) + ".trace";

void OpenContext(State& s) {
    s.context = std::make_unique<Context>(0, Context::Create(true));
}
void OpenContextAndHandles(State& s) {
    OpenContext(s);
    s.unique = std::make_unique<UniqueMetricsContext>(true);
    s.shared = std::make_unique<SharedMetricsContext>(true);
}
void OpenScope(State& s) {
    OpenContext(s);
    s.scope = std::make_unique<Scope>("a scope with a text to allocate");
}
void OpenClient(State& s) {
    VERIFY(test::Open(s.client, "/dev/null"));
}

/// What may differ in what is delivered when an allocation has failed.
enum class OnFailure {
    Nothing,           ///< The second try goes on where the first one stopped.
    OneLostOrTwoTries, ///< One event is lost, or the first try left events before the second's.
};
using enum OnFailure;

const struct Operation {
    const char* name;
    void (*prepare)(State&); // without, it is what the thread begins with
    void (*run)(State&);
    Events events; // what it brings
    OnFailure onFailure = Nothing;
} s_operations[] = {
    {"EmitEvent", nullptr, [](State&) { Send("text", "text"); }, {Custom}},
    {"Create", nullptr, [](State&) { Context::Create(true); }, {ContextCreated}},
    {"Context",
     nullptr,
     [](State& s) { s.context = std::make_unique<Context>(1, 2); },
     {ContextOpened}},
    {"Context with a name",
     nullptr,
     [](State& s) {
         if (s.context == nullptr)
             s.context = std::make_unique<Context>(1, 2, "a name that has to be allocated");
         s.context->OpenScope(); // goes on, where the constructor has stopped quietly
     },
     {ContextOpened, Attribute, Attribute, Attribute, ScopeOpened}},
    {"ContextGuard",
     OpenContext,
     [](State& s) {
         const ContextGuard outer(*s.context), inner(*s.context), innermost(s.context.get());
         VERIFY(Manager().GetThreadContext()->GetCurrentContext() == s.context.get());
     },
     {}},
    {"Emit",
     OpenContext,
     [](State& s) { s.context->Emit("text"); },
     {Attribute, Attribute, Attribute, ScopeOpened, Custom}},
    {"AddAttribute", OpenContext, [](State& s) { s.context->AddAttribute("a", "b"); }, {Attribute}},
    {"Close",
     OpenScope,
     [](State& s) { s.context->Close(); },
     {ScopeClosed, ContextClosed},
     OneLostOrTwoTries},
    {"Scope",
     OpenContext,
     [](State& s) { s.scope = std::make_unique<Scope>("text"); },
     {Attribute, Attribute, Attribute, ScopeOpened, ScopeOpened}},
    {"Scope::Close",
     OpenScope,
     [](State& s) { s.scope->Close(); },
     {ScopeClosed},
     OneLostOrTwoTries},
    {"UniqueMetricsContext",
     OpenContext,
     [](State& s) {
         s.unique = std::make_unique<UniqueMetricsContext>(true, "a name that has to be allocated");
     },
     {ContextCreated}},
    {"UniqueMetricsContext::Open",
     OpenContextAndHandles,
     [](State& s) { VERIFY(s.unique->Open() != nullptr); },
     {ContextOpened, ContextClosed},
     OneLostOrTwoTries},
    {"SharedMetricsContext",
     OpenContext,
     [](State& s) { s.shared = std::make_unique<SharedMetricsContext>(true); },
     {ContextCreated, ContextOpened},
     OneLostOrTwoTries},
    {"SharedMetricsContext::Open",
     OpenContextAndHandles,
     [](State& s) { VERIFY(s.shared->Open() != nullptr); },
     {ContextCreated, ContextOpened, ContextClosed},
     OneLostOrTwoTries},
    {"WaitUntilWritesFlushed", nullptr, [](State&) { Manager().WaitUntilWritesFlushed(0); }, {}},
    {"AddConsumer",
     nullptr,
     [](State& s) { VERIFY(Manager().AddConsumer(s.listener, 0, false)); },
     {}},
    {"RemoveConsumer",
     nullptr,
     [](State&) { VERIFY(!Manager().RemoveConsumer(MakeListener({}))); },
     {}},
    {"GetThreadContext", nullptr, [](State&) { Manager().GetThreadContext(); }, {}},
    {"MetricsRawClient::Open",
     nullptr,
     OpenClient,
     {ContextCreated, ContextOpened},
     OneLostOrTwoTries},
    {"MetricsRawClient::Open without exceptions",
     nullptr,
     [](State& s) {
         s.client.SetOutputFileName("/dev/null");
         std::error_code error;
         if (s.client.Open(error))
             return;
         VERIFY((error == std::errc::not_enough_memory));
         throw std::bad_alloc();
     },
     {ContextCreated, ContextOpened},
     OneLostOrTwoTries},
    {"MetricsTraceClient::Open without exceptions",
     nullptr,
     [](State& s) {
         s.trace.SetOutputFileName(s_folder);
         std::error_code error;
         if (s.trace.Open(error))
             return;
         VERIFY((error == std::errc::not_enough_memory));
         throw std::bad_alloc();
     },
     {ContextCreated, ContextOpened},
     OneLostOrTwoTries},
    {"MetricsRawClient::Close",
     OpenClient,
     [](State& s) { s.client.Close(); },
     {ContextClosed},
     OneLostOrTwoTries},
};

/// Whether one failure explains what was delivered. That no object announces the same thing twice
/// is seen by the listener.
bool IsExplained(const Events& delivered, const Operation& operation) {
    const Events& usual = operation.events;
    if (delivered == usual || operation.onFailure == Nothing)
        return delivered == usual;
    for (std::size_t lost = 0; lost < usual.size(); ++lost) {
        Events others = usual;
        others.erase(others.begin() + static_cast<std::ptrdiff_t>(lost));
        if (delivered == others)
            return true;
    }
    return delivered.size() <= 2 * usual.size() + 1 && // the first try, and what closes it
           delivered.size() > usual.size() &&
           std::equal(usual.rbegin(), usual.rend(), delivered.rbegin());
}

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
            ++failures;
            VERIFY(failures == 1);
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
        VERIFY(hasFailed || state.delivered == operation.events);
        VERIFY(IsExplained(state.delivered, operation));
        state.scope.reset();
        state.context.reset();
        state.client.Close();
        state.trace.Close();
        VERIFY(Manager().GetCurrentThreadContext() == nullptr);
    }).join();
    state.shared.reset();
    Flush();
    state.delivered.clear();
    for (int i = 0; i < 1000; ++i)
        Send(i, {}, MetricsBits::act);
    FailsOnce(n, [] { Manager().Disable(); });
    MetricsManager::ShutdownAndFreeInstance();
    VERIFY(state.delivered == Events(1000, Custom));
    VERIFY(IsInert());
    return hasFailed || startFailed ? 3 : 0;
}

void EveryOperation() {
    int all = 0;
    for (const Operation& operation : s_operations) {
        int n = 0;
        for (int status = 3; status == 3; ++n) {
            const Ended ended = RunChild([&] { return RunOperation(operation, n); });
            status = ended.status;
            std::fputs(ended.output.c_str(), stderr);
            VERIFY(status == 0 || status == 3);
            VERIFY(ended.output == "");
        }
        std::printf("%s, or the start: %d allocations\n", operation.name, n - 1);
        all += n - 1;
    }
    std::filesystem::remove_all(s_folder);
    VERIFY(all > 30); // or there is something else that they allocate with
}

/// Emits into memory that is not there yet, while the delivery waits: from the n-th allocation on,
/// some fail. Each costs the one event that met it. @return the number of allocations.
int GrowTheQueue(int n, int failures) {
    constexpr int events = 400000;
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
    for (int i = 0; i < events; ++i) {
        try {
            context.Emit(i);
        } catch (const std::bad_alloc&) {
            ++lost;
        }
    }
    const int allocations = n - std::exchange(t_left, -1);
    isFull = true;
    Flush();
    VERIFY(lost >= std::min(failures, 1));
    VERIFY(lost <= failures);
    VERIFY(std::count(state.delivered.begin(), state.delivered.end(), Custom) == events - lost);
    return allocations;
}

void TheQueueGrows() {
    static int* const allocations = static_cast<int*>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto succeeds = [](int n, int failures) {
        const Ended ended = RunChild([=] {
            const int count = GrowTheQueue(n, failures);
            if (failures == 0)
                *allocations = count;
            return 0;
        });
        std::fputs(ended.output.c_str(), stderr);
        return ended.status == 0;
    };
    VERIFY(succeeds(INT_MAX, 0));
    std::printf("%d allocations\n", *allocations);
    VERIFY(*allocations > 0);
    for (const int n : {0, 1, *allocations / 2, *allocations - 1})
        for (const int failures : {1, 255, 1000})
            VERIFY(succeeds(n, failures));
}

/// However many guards a thread has had, they leave nothing behind.
void GuardsWithoutAllocating() {
    const Session session;
    Context context(0, Context::Create(true));
    const auto guardTwice = [&context] { const ContextGuard outer(context), inner(context); };
    guardTwice();
    const int allocations = t_allocations;
    for (int i = 0; i < 1000; ++i)
        guardTwice();
    VERIFY(t_allocations == allocations);
}

/// Texts are copied into the same two strings again and again: once these are there, the delivery
/// thread allocates nothing, however long it goes on.
void DeliversWithoutAllocating() {
    constexpr int before = 1000, events = 20000;
    int delivered = 0, allocations = -1;
    const auto listener = MakeListener([&](const MetricsEvent& event) {
        if (event.eventType != Attribute)
            return;
        VERIFY(event.param1.text->size() > 15 && event.param2.text->size() == 200);
        ++delivered;
        if (delivered == before)
            allocations = t_allocations;
        else if (delivered == events)
            allocations = t_allocations - allocations;
    });
    const Session session;
    Context context(0, Context::Create(true));
    context.OpenScope();
    Flush();
    VERIFY(Manager().AddConsumer(listener, everyBit, false));
    const std::string text(200, 'x');
    for (int i = 0; i < events; ++i) {
        Metrics::Attribute("longer than what fits into a string", text);
        if (i % 100 == 0)
            Flush();
    }
    Flush();
    VERIFY(delivered == events);
    VERIFY(allocations == 0);
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"EveryOperation", EveryOperation, 600},
                     {"TheQueueGrows", TheQueueGrows, 600},
                     {"GuardsWithoutAllocating", GuardsWithoutAllocating},
                     {"DeliversWithoutAllocating", DeliversWithoutAllocating}});
}
