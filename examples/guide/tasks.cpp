// Tasks of a scheduler that take each other's threads: TBB, and coroutines on top of it.

#include <metrics/Metrics.h>

#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <atomic>
#include <coroutine>
#include <cstdio>
#include <exception>
#include <memory>
#include <vector>

namespace MetricsBits = Metrics::MetricsBits;

namespace {

using Rows = std::vector<std::vector<int>>;

int Sum(const std::vector<int>& row) {
    const Metrics::Scope scope("row", MetricsBits::comp);
    int sum = 0;
    for (const int number : row)
        sum += number;
    scope.Emit("sum", sum);
    return sum;
}

// [snippet: parallel_for]
int SumOfRows(const Rows& rows) {
    std::atomic<int> sum{0};
    // The one that all of this belongs to; it lives for as long as this function waits.
    Metrics::Context* const mine =
        Metrics::MetricsManager::GetInstance()->GetCurrentThreadContext();
    tbb::parallel_for(std::size_t{0}, rows.size(), [&](std::size_t i) {
        const Metrics::ContextGuard guard(mine); // on this thread, for this block
        sum += Sum(rows[i]);
    });
    return sum;
}
// [end]

// [snippet: task_group]
int SumOfTables(const std::vector<Rows>& tables) {
    std::atomic<int> sum{0};
    tbb::task_group group;
    for (const Rows& table : tables)
        group.run([&, child = Metrics::UniqueMetricsContext(true, "table")] {
            const auto context = child.Open(); // the functor is const, and so is Open
            sum += SumOfRows(table);
        });
    group.wait();
    return sum;
}
// [end]

// [snippet: isolation]
int SumUndisturbed(const Rows& rows) {
    const Metrics::Scope scope("undisturbed", MetricsBits::comp);
    return tbb::this_task_arena::isolate([&rows] { return SumOfRows(rows); });
}
// [end]

// NOLINTBEGIN(readability-identifier-naming): the language gives the names
// [snippet: coroutine]
/// Where a coroutine goes on: as a task, on whichever thread takes it.
struct NextTask {
    tbb::task_group& group;
    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> rest) const {
        group.run([rest] { rest.resume(); });
    }
    void await_resume() const {}
};

struct Coroutine {
    struct promise_type {
        Coroutine get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
};

Coroutine SumStepByStep(tbb::task_group& group, const Rows& rows, std::atomic<int>& sum) {
    const auto context = Metrics::UniqueMetricsContext(true, "steps").Open();
    if (context != nullptr)
        context->DetachFromThread(); // no thread keeps it; it ends with the coroutine
    for (const auto& row : rows) {
        {
            const Metrics::ContextGuard guard(context.get()); // never across a co_await
            sum += Sum(row);
        }
        co_await NextTask{group};
    }
}
// [end]
// NOLINTEND(readability-identifier-naming)

int SumInSteps(const Rows& rows) {
    std::atomic<int> sum{0};
    tbb::task_group group;
    SumStepByStep(group, rows, sum);
    group.wait();
    return sum;
}

} // namespace

int main(int argc, char** argv) {
    try {
        Metrics::MetricsRawClient client;
        for (int i = 1; i < argc; ++i)
            client.ProcessArgument(argv[i]);
        Metrics::MetricsManager::GetInstance()->Enable();
        client.Open();
        {
            const Metrics::Context run(0, Metrics::Context::Create(true), "run");
            const Rows rows(8, {1, 2, 3});
            std::printf("rows: %d\n", SumOfRows(rows));
            std::printf("tables: %d\n", SumOfTables({rows, rows}));
            std::printf("undisturbed: %d\n", SumUndisturbed(rows));
            std::printf("steps: %d\n", SumInSteps(rows));
        }
        client.Close();
        Metrics::MetricsManager::ShutdownAndFreeInstance();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
