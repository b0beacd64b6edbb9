// Forks of a process that has the library in use: off in the child, unnoticed in the parent.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <array>
#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

/// In the child: every call does nothing and the end takes no time. @return the exit status.
int BeInert(MetricsRawClient& client) {
    const bool isOff = !TestBits(MetricsBits::act);
    Send("of the child");
    client.Close();
    return !isOff || client.Open() || !IsInert() ? 2 : 0;
}

/// Forks while other threads emit, register, flush and write lines. Afterwards the file must hold
/// each emitter's events once and in order, and nothing of the children.
void UnderLoad() {
    const TemporaryFile file;
    std::atomic<int> delivered{0};
    MetricsRawClient client;
    const Session session;
    VERIFY(Open(client, file.path));
    Consume(false, [&delivered](const MetricsEvent&) { ++delivered; });
    VERIFY(Consume(true, [parent = getpid()](const MetricsEvent&) { VERIFY(getpid() == parent); }));

    std::array<std::uint64_t, 3> emitted{};
    std::vector<std::jthread> threads;
    for (std::uint64_t i = 0; i < emitted.size(); ++i)
        threads.emplace_back([&, i](const std::stop_token& isOver) {
            while (!isOver.stop_requested()) {
                Send(i, emitted[i]++);
                if (emitted[i] % 64 == 0) // the backlog stays small
                    Manager().WaitUntilWritesFlushed(1000);
            }
        });
    threads.emplace_back([](const std::stop_token& isOver) {
        while (!isOver.stop_requested())
            VERIFY(Manager().RemoveConsumer(Consume(true, [](const MetricsEvent&) {})));
    });
    double seconds = 0;
    for (int i = 0; i < Repetitions(300); ++i) {
        const int before = delivered;
        VERIFY(Poll([&] { return delivered - before > 20; })); // lines are being written
        const Ended ended = RunChild([&client] { return BeInert(client); });
        VERIFY(ended.status == 0);
        seconds += ended.seconds;
    }
    VERIFY(seconds / Repetitions(300) < 0.5); // waiting for a delivery thread would take 1 s
    threads.clear();
    client.Close();
    VERIFY(Manager().Disable());

    const std::string text = ReadFile(file.path);
    VERIFY(text.back() == '\n' && Count(text, "child") == 0);
    for (std::uint64_t i = 0; i < emitted.size(); ++i) {
        const std::string begin = ",7," + std::to_string(i) + ',';
        VERIFY(Count(text, begin) == emitted[i]);
        for (std::size_t n = 0, at = 0; n < emitted[i]; ++n)
            VERIFY((at = text.find(begin + std::to_string(n) + '\n', at)) != std::string::npos);
    }
}

/// Forks inside of a consumer call: the child returns from it, in the emitter's or the delivery
/// thread, and ends. The file holds each line once.
void InsideAConsumer(bool synchronous) {
    static std::atomic<pid_t> child{-1};
    static std::atomic<int> delivered{0};
    const TemporaryFile file;
    MetricsRawClient client, late;
    Start();
    const auto forks = [](const MetricsEvent& event) {
        if (event.eventType != MetricsEventType::Custom)
            return;
        if (event.param1.integer == 1)
            child = fork();
        ++delivered;
    };
    VERIFY(Consume(synchronous, [parent = getpid()](const MetricsEvent&) {
        VERIFY(getpid() == parent); // nothing is delivered in a child
    }));
    // The file's consumer stands before the one that forks, and behind it.
    VERIFY(Open(client, file.path));
    Consume(synchronous, forks);
    const std::string lateFile = file.path + ".late";
    VERIFY(Open(late, lateFile));
    const Scope scope("scope", MetricsBits::act); // in the client's context
    const int rounds = Repetitions(20);
    for (int i = 0; i < rounds; ++i) {
        child = -1;
        delivered = 0;
        for (int n = 0; n < 100; ++n) // of both kinds, whose contents are let go of differently
            i % 2 == 0 ? scope.Emit(n, i) : static_cast<void>(Send(n, i));
        if (synchronous && child == 0)
            std::exit(BeInert(client));
        VERIFY(Poll([] { return delivered == 100; }));
        int status = 0;
        VERIFY(waitpid(child, &status, 0) == child);
        VERIFY(status == 0);
    }
    late.Close();
    client.Close();
    for (const std::string& path : {file.path, lateFile}) {
        const std::string text = ReadFile(path);
        VERIFY(Count(text, ",7,") == std::size_t(100 * rounds));
        for (int i = 0; i < rounds; ++i)
            VERIFY(Count(text, ",7,1," + std::to_string(i) + '\n') == 1);
    }
    unlink(lateFile.c_str());
}

/// In a process, or in a child of it: enables the library and finds all of it there.
int BeginHere(const Context& context) {
    int delivered = 0;
    MetricsRawClient client;
    const TemporaryFile file{"test." + std::to_string(getpid()) + ".csv"};
    Start();
    VERIFY(Consume(false, [&delivered](const MetricsEvent& event) {
        delivered += event.eventType == MetricsEventType::Custom;
        VERIFY(event.bits != MetricsBits::act || event.param1.integer == GetEventThreadId());
    }));
    VERIFY(Open(client, file.path));
    VERIFY(Poll([] { return ThreadsNamed("metrics") == 1; }));
    for (int i = 0; i < 3; ++i)
        std::thread([] { // must not take the contexts of the thread that has forked for its own
            VERIFY(Manager().GetCurrentThreadContext() == nullptr);
            const Context own(0, Context::Create(true));
            VERIFY(Manager().GetCurrentThreadContext() == &own);
            Send("of a thread");
        })
            .join();
    client.Close();
    VERIFY(Count(ReadFile(file.path), ",7,of a thread,0\n") == 3);
    // So many threads that the library looks who has ended: this one has not, whatever its id was.
    for (int i = 0; i < 40; ++i) {
        std::thread([] { Send(gettid(), 0, MetricsBits::act); }).join();
        Send(gettid(), 0, MetricsBits::act);
        Flush();
    }
    VERIFY(Manager().GetCurrentThreadContext() == &context);
    VERIFY(delivered == 3 + 80);
    VERIFY(Manager().Disable());
    return 0;
}

/// Forks before anybody has enabled the library: each process may do so for itself. Other threads
/// are inside of calls meanwhile.
void BeforeEnable() {
    Context context(0, 1); // on this thread's stack, here and in the children
    const auto call = [](const std::stop_token& isOver) {
        while (!isOver.stop_requested()) {
            Manager().SetThreadInitFunction([] {});
            Send("dropped");
            const Context other(0, 2);
        }
    };
    {
        const std::jthread first(call), second(call);
        for (int i = 0; i < Repetitions(100); ++i) {
            const Ended ended =
                RunChild([&context] { return BeginHere(context); }, std::chrono::seconds(20));
            std::fputs(ended.output.c_str(), stderr);
            VERIFY(ended.status == 0);
        }
    }
    BeginHere(context);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<Case> cases;
    // AddressSanitizer's allocator (before LLVM 17) does not take its locks for a fork: the child
    // of a process with threads may wait forever for one that another thread held.
    if (!hasAddressSanitizer) {
        cases.push_back({"UnderLoad", UnderLoad, 600});
        cases.push_back({"InASynchronousConsumer", [] { InsideAConsumer(true); }, 300});
    }
    // ThreadSanitizer's runtime crashes when a thread ends that came through a fork.
    if (sanitizer.empty())
        cases.insert(cases.end(),
                     {{"InAnAsynchronousConsumer", [] { InsideAConsumer(false); }, 300},
                      {"BeforeEnable", BeforeEnable, 300}});
    return RunCases(argc, argv, cases);
}
