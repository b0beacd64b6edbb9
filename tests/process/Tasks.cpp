// A scheduler whose threads, while they wait, take other tasks: whatever is stolen by whom, each
// scope is recorded in the context that it belongs to.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <coroutine>

using namespace Metrics;
using namespace Metrics::test;

namespace {

constexpr int requests = 16, pieces = 16;

/// Looks at each scope, whose label is the id of the context that it belongs to.
class Witness {
public:
    Witness() {
        VERIFY(Consume(true, [this](const MetricsEvent& event) {
            if (event.eventType != MetricsEventType::ScopeOpened || event.bits != MetricsBits::act)
                return;
            (static_cast<std::uint64_t>(event.param1.integer) == event.contextId ? m_right
                                                                                 : m_wrong)++;
        }));
    }
    int Right() const { return m_right; }
    int Wrong() const { return m_wrong; }

private:
    std::atomic<int> m_right{0}, m_wrong{0};
};

/// A scope that belongs to the context. Other threads come in between.
void Record(std::uint64_t id) {
    const Scope scope(id, MetricsBits::act);
    std::this_thread::yield();
}

/// How often a task ran where the context of another was current, or none.
std::atomic<int> s_strangers{0};

void CountStranger(bool isOne) {
    s_strangers += isOne ? 1 : 0;
}

/// Goes on until that happened in earnest. @return how often it was done.
template <class Body>
int UntilStrangersCame(Body body) {
    int rounds = 0;
    for (const auto start = Clock::now(); s_strangers < 20; ++rounds) {
        VERIFY(SecondsSince(start) < 100);
        body();
    }
    return rounds;
}

/// All pieces of a request, which wait for each other, so that other tasks come in between.
void Handle(Context& request) {
    const std::uint64_t id = request.GetContextId();
    Record(id);
    tbb::parallel_for(0, pieces, [&request, id](int) {
        const std::uint64_t current = Manager().GetCurrentThreadContextId();
        CountStranger(current != 0 && current != id);
        const ContextGuard guard(request);
        Record(id);
        tbb::parallel_for(0, 4, [&request, id](int) {
            const ContextGuard again(request);
            Record(id);
        });
        Record(id);
    });
    Record(id);
}

/// More threads than this machine has processors, so that every one is interrupted anywhere.
struct Threads {
    tbb::task_scheduler_handle scheduler{tbb::attach{}};
    tbb::global_control limit{tbb::global_control::max_allowed_parallelism, 4};
    tbb::task_arena arena{4};

    // Joins them; otherwise one may be seen to end behind main.
    ~Threads() {
        arena.terminate();
        tbb::finalize(scheduler, std::nothrow);
    }
};

/// Task groups whose tasks open handles, parallel loops within them.
void EveryScopeLandsInItsContext() {
    Witness witness;
    const Session session;
    Threads threads;
    Context run(0, Context::Create(true));
    threads.arena.execute([&] {
        const int rounds = UntilStrangersCame([&run] {
            tbb::task_group group;
            for (int i = 0; i < requests; ++i)
                group.run([child = UniqueMetricsContext(true, "request")] {
                    const auto request = child.Open();
                    Handle(*request);
                });
            group.wait();
            VERIFY(Manager().GetCurrentThreadContextId() == run.GetContextId());
        });
        VERIFY(witness.Wrong() == 0);
        VERIFY(witness.Right() == rounds * requests * (2 + pieces * 6));
    });
    VERIFY(Manager().GetCurrentThreadContext() == &run);
}

/// What waits in isolation takes no task from outside, so that it needs no guard for its own.
void IsolationKeepsStrangersOut() {
    Witness witness;
    const Session session;
    Threads threads;
    threads.arena.execute([&] {
        const int rounds = UntilStrangersCame([] {
            tbb::parallel_for(0, requests, [](int) {
                Context request(0, Context::Create(true), "request");
                const std::uint64_t id = request.GetContextId();
                tbb::this_task_arena::isolate([&request, id] {
                    tbb::parallel_for(0, pieces, [&request, id](int) {
                        CountStranger(Manager().GetCurrentThreadContextId() != id);
                        const ContextGuard guard(request); // for the threads that help
                        Record(id);
                    });
                    Record(id); // it is still the one of this thread
                });
                Record(id);
            });
        });
        VERIFY(witness.Wrong() == 0);
        VERIFY(witness.Right() == rounds * requests * (pieces + 2));
    });
}

/// A coroutine that goes on wherever a thread is free: the context is its own, and each stretch
/// between two suspensions has a guard.
struct Detached {
    struct promise_type {
        Detached get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
};

struct GoOnIn {
    tbb::task_group& group;
    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> rest) const {
        group.run([rest] { rest.resume(); });
    }
    void await_resume() const {}
};

Detached Serve(tbb::task_group& group, UniqueMetricsContext handle) {
    const auto request = handle.Open();
    request->DetachFromThread();
    const std::uint64_t id = request->GetContextId();
    for (int step = 0; step < pieces; ++step) {
        const pid_t thread = gettid();
        {
            const ContextGuard guard(*request);
            Record(id);
        }
        co_await GoOnIn{group};
        CountStranger(gettid() != thread);
    }
}

void CoroutinesKeepTheirContext() {
    Witness witness;
    const Session session;
    Threads threads;
    Context run(0, Context::Create(true));
    threads.arena.execute([&] {
        const ContextGuard guard(run);
        const int rounds = UntilStrangersCame([&run] {
            tbb::task_group group;
            for (int i = 0; i < requests; ++i)
                Serve(group, UniqueMetricsContext(true, "request"));
            group.wait();
            VERIFY(Manager().GetCurrentThreadContextId() == run.GetContextId());
        });
        VERIFY(witness.Wrong() == 0);
        VERIFY(witness.Right() == rounds * requests * pieces);
    });
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"EveryScopeLandsInItsContext", EveryScopeLandsInItsContext, 120, 200},
                     {"IsolationKeepsStrangersOut", IsolationKeepsStrangersOut, 120, 100},
                     {"CoroutinesKeepTheirContext", CoroutinesKeepTheirContext, 120, 100}});
}
