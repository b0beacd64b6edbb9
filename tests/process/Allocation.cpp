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
    return true;
}

} // namespace

// The C library's own functions under the names that everybody calls, and TBB's behind its own.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) { return Fails() ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) {
    return Fails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
    return Fails() ? nullptr : __libc_realloc(memory, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return Fails() ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    return (*memory = aligned_alloc(alignment, size)) == nullptr ? ENOMEM : 0;
}
}
namespace tbb::detail::r1 {
[[gnu::visibility("default")]] void* cache_aligned_allocate(std::size_t size) {
    if (Fails())
        throw std::bad_alloc();
    using Function = void* (*)(std::size_t);
    static const auto real = reinterpret_cast<Function>(
        dlsym(RTLD_NEXT, "_ZN3tbb6detail2r122cache_aligned_allocateEm"));
    return real(size);
}
} // namespace tbb::detail::r1

namespace {

/// What the operations need, and what was delivered: the types of the events, in order.
struct State {
    std::string delivered;
    MetricsListenerPtr listener = MakeListener([this](const MetricsEvent& event) {
        delivered += static_cast<char>('0' + static_cast<int>(event.eventType));
    });
    std::uint64_t id = 0;
    std::unique_ptr<Context> context;
    std::unique_ptr<Scope> scope;
    std::unique_ptr<UniqueMetricsContext> unique;
    std::unique_ptr<SharedMetricsContext> shared;
    MetricsRawClient client;
};

struct Operation {
    const char* name;
    void (*run)(State&);
    const char* events;  // what it brings when nothing fails
    bool mayLose = false; // an event, since it is over although it has failed
    void (*prepare)(State&) = [](State&) {};
};

void OpenContext(State& state) {
    state.id = Context::Create(true);
    state.context = std::make_unique<Context>(0, state.id);
}
void OpenScope(State& state) {
    OpenContext(state);
    state.scope = std::make_unique<Scope>("scope");
}

const Operation s_operations[] = {
    {"EmitEvent", [](State&) { EmitOne("text", "text"); }, "7"},
    {"Context::Create", [](State& s) { s.id = Context::Create(true); }, "2"},
    {"Context", [](State& s) { s.context = std::make_unique<Context>(1, 2); }, "3"},
    {"Context::Emit", [](State& s) { s.context->Emit("text"); }, "2388857", false, OpenContext},
    {"Context::AddAttribute", [](State& s) { s.context->AddAttribute("a", "b"); }, "238", false,
     OpenContext},
    {"Context::Close", [](State& s) { s.context->Close(); }, "2388856564", true, OpenScope},
    {"Scope", [](State& s) { s.scope = std::make_unique<Scope>("scope"); }, "2388855", false,
     OpenContext},
    {"Scope::Close", [](State& s) { s.scope->Close(); }, "23888556", true, OpenScope},
    {"unique handle",
     [](State& s) {
         if (s.unique == nullptr)
             s.unique = std::make_unique<UniqueMetricsContext>(true);
         auto child = s.unique->Open();
         VERIFY(child != nullptr);
     },
     "23234", true, OpenContext},
    {"shared handle", [](State& s) { SharedMetricsContext(true).Open(); }, "23232344", true,
     OpenContext},
    {"WaitUntilWritesFlushed", [](State&) { Manager().WaitUntilWritesFlushed(0); }, ""},
    {"AddConsumer", [](State& s) { VERIFY(Manager().AddConsumer(s.listener, 0, true)); }, ""},
    {"GetThreadContext", [](State&) { VERIFY(Manager().GetThreadContext() != nullptr); }, ""},
    {"MetricsRawClient::Open",
     [](State& s) {
         s.client.SetOutputFileName("/dev/null");
         VERIFY(s.client.Open());
     },
     "23", true},
};
} // namespace
int main() { return 0; }
