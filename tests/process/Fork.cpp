// Forks of a process that has the library in use: off in the child, unnoticed in the parent.

#include "../support/Process.h"
#include "Exercise.h"

#include <algorithm>
#include <array>
#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

constexpr int emitters = 3;
bool s_isChild = false;

/// In the child: every call does nothing and the end takes no time. @return the exit status.
int BeInert(MetricsRawClient& client) {
    s_isChild = true;
    for (const char* const text : {"of the child", "once more"})
        EmitOne(text);
    client.Close();
    return IsInert() ? 0 : 2;
}

/// In the parent: waits for a child that ends by itself. @return the seconds that took.
double Reap(pid_t child) {
    const auto start = Clock::now();
    int status = 0;
    if (!Poll([&] { return waitpid(child, &status, WNOHANG) == child; })) {
        kill(child, SIGKILL);
        VERIFY(!"the child hangs");
    }
    VERIFY(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return SecondsSince(start);
}

/// Forks while other threads emit, register, flush and write lines. Afterwards the file must hold
/// each emitter's events once and in order, and nothing of the children.
void UnderLoad() {
    const TemporaryFile file;
    std::atomic<bool> isOver{false};
    std::atomic<int> delivered{0};
    const auto count = MakeListener([&delivered](const MetricsEvent&) { ++delivered; });
    MetricsRawClient client;
    client.SetOutputFileName(file.path);
    Start();
    VERIFY(client.Open() && Manager().AddConsumer(count, ~0ull, false));
    // Consumers that are called in the child would be seen there.
    const pid_t parent = getpid();
    VERIFY(Manager().AddConsumer(
        MakeListener([parent](const MetricsEvent&) { VERIFY(getpid() == parent); }), ~0ull, true));

    std::vector<std::thread> threads;
    std::array<std::atomic<int>, emitters> emitted{};
    for (int i = 0; i < emitters; ++i)
        threads.emplace_back([&, i] {
            while (!isOver) {
                EmitOne("emitter " + std::to_string(i), emitted[i]++);
                if (emitted[i] % 64 == 0) // the backlog stays small
                    Manager().WaitUntilWritesFlushed(1000);
            }
        });
    threads.emplace_back([&] {
        while (!isOver) {
            const auto transient = MakeListener([](const MetricsEvent&) {});
            VERIFY(Manager().AddConsumer(transient, ~0ull, true));
            VERIFY(Manager().RemoveConsumer(transient));
        }
    });
    std::vector<double> seconds;
    for (int i = 0; i < Repetitions(300); ++i) {
        const int before = delivered;
        VERIFY(Poll([&] { return delivered - before > 20; })); // lines are being written
        const pid_t child = fork();
        if (child == 0)
            std::exit(BeInert(client));
        seconds.push_back(Reap(child));
    }
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    client.Close();
    VERIFY(Manager().Disable());

    const std::string text = ReadFile(file.path);
    VERIFY(text.back() == '\n' && Count(text, "child") == 0 && Count(text, "late") == 0);
    for (int i = 0; i < emitters; ++i) {
        const std::string name = ",7,emitter " + std::to_string(i) + ",";
        std::size_t at = 0;
        for (int n = 0; n < emitted[i]; ++n) {
            at = text.find(name, at) + name.size();
            VERIFY(text.compare(at, text.find('\n', at) - at, std::to_string(n)) == 0);
        }
        VERIFY(text.find(name, at) == std::string::npos);
    }
    std::sort(seconds.begin(), seconds.end());
    std::printf("%zu forks, %d events; a child ended within %.3f s (median), %.3f s (longest)\n",
                seconds.size(), emitted[0] + emitted[1] + emitted[2], seconds[seconds.size() / 2],
                seconds.back());
    VERIFY(seconds[seconds.size() / 2] < 0.5); // waiting for a delivery thread would take 1 s
}

/// Forks inside of a consumer call: the child returns from it, in the emitter's or the delivery
/// thread, and ends.
void InsideAConsumer(bool synchronous) {
    const TemporaryFile file;
    static std::atomic<pid_t> child{-1};
    static std::atomic<int> delivered{0};
    MetricsRawClient client;
    client.SetOutputFileName(file.path);
    Start();
    const auto forks = MakeListener([](const MetricsEvent& event) {
        if (event.eventType != MetricsEventType::Custom)
            return;
        if (event.param1.integer == 1)
            child = fork();
        ++delivered;
    });
    VERIFY(Manager().AddConsumer(forks, MetricsBits::act, synchronous) && client.Open());
    for (int i = 0; i < Repetitions(50); ++i) {
        child = -1;
        delivered = 0;
        for (int n = 0; n < 100; ++n)
            EmitOne(n, "line", MetricsBits::act);
        if (synchronous && child == 0)
            std::exit(BeInert(client));
        VERIFY(Poll([] { return delivered == 100; }));
        Reap(child);
    }
    client.Close();
    VERIFY(Count(ReadFile(file.path), ",line\n") == 100u * Repetitions(50));
}

} // namespace

// For LeakSanitizer: the child has no stacks that hold what the parent's other threads hold.
extern "C" int __lsan_is_turned_off() {
    return s_isChild;
}

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"fork under load", UnderLoad, 600},
                     {"fork in a synchronous consumer", [] { InsideAConsumer(true); }, 300},
                     {"fork in an asynchronous consumer", [] { InsideAConsumer(false); }, 300}});
}
