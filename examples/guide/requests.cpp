// Requests that are worked on by several threads: a context for each, handles that carry it.

#include <metrics/Metrics.h>

#include <cstdio>
#include <exception>
#include <future>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

namespace MetricsBits = Metrics::MetricsBits;

namespace {

using Numbers = std::vector<int>;

std::string Describe(const Numbers& numbers) {
    std::string text;
    for (const int number : numbers)
        text += std::to_string(number) + ' ';
    return text;
}

// [snippet: categories]
int Sum(const Numbers& numbers) {
    // Recorded when either of the two categories is on.
    const Metrics::Scope scope("sum", MetricsBits::comp | MetricsBits::highvol);
    // Ask first where the value itself is costly to build.
    if (Metrics::TestBits(MetricsBits::highvol))
        Metrics::Attribute("numbers", Describe(numbers), MetricsBits::highvol);
    return std::accumulate(numbers.begin(), numbers.end(), 0);
}
// [end]

// [snippet: job]
/// Goes to a thread pool. Its context is a child of the one that is current where the job is made.
struct Job {
    Numbers numbers;
    Metrics::UniqueMetricsContext context{true, "job"};
};

int Work(Job job) { // on a thread of the pool
    // Null where there was no current context: nothing is recorded then.
    const std::unique_ptr<Metrics::Context> context = job.context.Open();
    return Sum(job.numbers);
} // the context closes here, on the thread that opened it
// [end]

// [snippet: shared]
int SumOfPieces(const Numbers& numbers) {
    const Metrics::SharedMetricsContext pieces(true, "pieces"); // one parent for all pieces
    std::vector<std::future<int>> sums;
    for (const int number : numbers)
        sums.push_back(std::async(std::launch::async, [pieces, number] { // a copy of the handle
            const std::unique_ptr<Metrics::Context> context = pieces.Open("piece");
            return Sum({number});
        }));
    int sum = 0;
    for (std::future<int>& piece : sums)
        sum += piece.get();
    return sum;
}
// [end]

// [snippet: request]
int HandleRequest(const std::string& user, const Numbers& numbers) {
    // A root, current on this thread. The name is the label of the scope that each context has.
    const Metrics::Context context(0, Metrics::Context::Create(true), "request");
    Metrics::Attribute("user", user, MetricsBits::query);

    const Metrics::Scope scope("handle", MetricsBits::query);
    // [snippet: hand-over]
    std::future<int> sum = std::async(std::launch::async, Work, Job{numbers}); // or any pool
    // [end]
    scope.Emit("sum", sum.get());
    return SumOfPieces(numbers);
} // the scope closes, then the context
// [end]

} // namespace

int main(int argc, char** argv) {
    try {
        Metrics::MetricsRawClient client;
        for (int i = 1; i < argc; ++i)
            client.ProcessArgument(argv[i]);
        Metrics::MetricsManager::GetInstance()->Enable();
        client.Open();
        std::printf("sum: %d\n", HandleRequest("mary", {1, 2, 3}));
        client.Close();
        Metrics::MetricsManager::ShutdownAndFreeInstance();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
