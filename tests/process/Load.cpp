// Much of everything, and what is left of it.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <clocale>
#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

const TemporaryFile s_file;

long ResidentKiB() {
    const std::string status = ReadFile("/proc/self/status");
    return std::atol(status.c_str() + status.find("VmRSS:") + 6);
}

/// Threads come and go: they see nothing of what earlier ones left attached, and leave no memory.
void ShortThreads() {
    std::vector<std::unique_ptr<Context>> left;
    std::atomic<int> delivered{0};
    const Session session;
    Consume(false, [&](const MetricsEvent& event) {
        delivered += event.eventType == MetricsEventType::Custom;
    });
    const auto run = [&left](int threads, bool leave) {
        for (int i = 0; i < threads; ++i) {
            std::unique_ptr<Context> context; // outlives the thread that it is attached to
            std::thread([&] {
                VERIFY(Manager().GetCurrentThreadContext() == nullptr && !TestBitsAndContext(0));
                VERIFY(Manager().GetThreadContext()->GetCurrentContext() == nullptr);
                VERIFY(Manager().GetCurrentThreadContextId() == 0 && Context::Create(false) == 0);
                context = std::make_unique<Context>(0, Context::Create(true));
                context->Emit("of a short thread");
                if (i % 500 == 0) // lest the backlog be measured
                    Flush();
            }).join();
            if (leave)
                left.push_back(std::move(context));
        }
        Flush();
        return ResidentKiB();
    };
    const int threads = Repetitions(20000);
    const long before = run(1000, true);
    const long grown = run(threads, false) - before;
    std::printf("%d threads left %ld KiB\n", threads, grown);
    VERIFY(delivered == 1000 + threads && (!sanitizer.empty() || grown < 2048));
}

/// A thread that lives for long uses guard after guard, and attaches and detaches.
void GuardsLeaveNothing() {
    const Session session;
    Context context(0, Context::Create(true));
    context.DetachFromThread();
    const auto use = [&context](int times) {
        for (int i = 0; i < times; ++i) {
            const ContextGuard guard(context), none(nullptr);
            context.AttachToThread();
            context.DetachFromThread();
        }
        return ResidentKiB();
    };
    const long before = use(1000);
    const int times = Repetitions(1000000);
    const long grown = use(times) - before;
    VERIFY(Manager().GetCurrentThreadContext() == nullptr);
    std::printf("%d guards left %ld KiB\n", times, grown);
    VERIFY(grown < 1024 + times / 1000); // an entry of each would take 8 bytes
}

/// The same once the application has ended the delivery: threads open contexts still.
void ShortThreadsBehindTheShutdown() {
    const Session session;
    Send(0, 0, 0, MetricsEventType::Shutdown);
    VERIFY(Poll([] { return !TestBits(0); }));
    const auto run = [](int threads) {
        for (int i = 0; i < threads; ++i)
            std::thread([] {
                VERIFY(Manager().GetCurrentThreadContext() == nullptr);
                const Context context(0, Context::Create(true));
                VERIFY(Manager().GetCurrentThreadContext() == &context);
            }).join();
        return ResidentKiB();
    };
    const long before = run(1000);
    const int threads = std::max(Repetitions(10000), 3000);
    const long grown = run(threads) - before;
    std::printf("%d threads left %ld KiB\n", threads, grown);
    VERIFY(grown < threads / 10); // a third of what they would keep
}

/// Bursts of any size, held back until they are over: what they took goes back to the system.
void MemoryGoesBack() {
    std::atomic<bool> isHeld{false};
    std::atomic<int> delivered{0};
    const Session session;
    Consume(false, [&](const MetricsEvent&) {
        VERIFY(Poll([&] { return !isHeld; }));
        ++delivered;
    });
    const auto burst = [&](int events) {
        isHeld = true;
        delivered = 0;
        const int perThread = events / 2;
        const auto emit = [perThread] {
            for (int i = 0; i < perThread; ++i)
                AttributeImpl(i, i, 0);
        };
        std::thread other(emit);
        emit();
        other.join();
        const long held = ResidentKiB();
        isHeld = false;
        Flush();
        VERIFY(delivered == events);
        return held;
    };
    burst(100);
    const long before = ResidentKiB();
    for (const int events : {300000, 20000, 400000, 4000, 200000, 120000}) {
        const long held = burst(events);
        // The scale of it: otherwise there is nothing to give back.
        VERIFY(events < 100000 || held - before > events / 40);
    }
    long after = 0;
    const bool goesBack =
        Poll([&] { return (after = ResidentKiB()) < before + 4096; }, std::chrono::seconds(15));
    std::printf("%ld KiB before, %ld KiB after\n", before, after);
    VERIFY(goesBack);
}

/// Whatever else is emitted, a flush sees the caller's own events through, and a closed file is
/// complete and at rest.
void FlushesAndClosesUnderLoad() {
    std::atomic<int> last{-1};
    double longest = 0;
    const Session session;
    Consume(false, [&](const MetricsEvent& event) {
        if (event.bits == MetricsBits::act)
            last = static_cast<int>(event.param2.integer);
    });
    std::vector<std::jthread> load;
    for (int i = 0; i < 3; ++i)
        load.emplace_back([](const std::stop_token& isOver) {
            for (int n = 0; !isOver.stop_requested(); ++n) {
                Send("load", n);
                if (n % 20 == 0) // lest they outrun the delivery
                    Manager().WaitUntilWritesFlushed(1);
            }
        });
    MetricsRawClient client;
    for (int i = 0; i < Repetitions(2000); ++i) {
        const bool closes = i % 20 == 19;
        VERIFY(i % 20 != 0 || Open(client, s_file.path));
        for (int n = 0; n < 10; ++n)
            Send("own", i, MetricsBits::act);
        const auto start = Clock::now();
        closes ? client.Close() : Flush();
        longest = std::max(longest, SecondsSince(start));
        VERIFY(closes || last == i);
        if (closes) {
            const std::string text = ReadFile(s_file.path);
            VERIFY(text.back() == '\n' && Count(text, ",own,") == 200);
            Flush(); // many lines later
            VERIFY(ReadFile(s_file.path) == text);
        }
    }
    std::printf("the longest flush or Close took %.3f s\n", longest);
    VERIFY(longest < 2);
}

/// Closing after Disable waits for nothing, also after a time-out, with the delivery still stuck.
void ClosesAfterDisable(bool isStuck) {
    std::atomic<bool> arrived{false};
    std::atomic<bool> goesOn{!isStuck};
    MetricsRawClient client;
    Start();
    Consume(false, [&](const MetricsEvent&) {
        arrived = true;
        VERIFY(Poll([&] { return goesOn.load(); }));
    });
    VERIFY(Open(client, s_file.path));
    for (int i = 0; i < 1000; ++i)
        Send("behind", i, MetricsBits::act);
    VERIFY(Poll([&] { return arrived.load(); }) && Manager().Disable() != isStuck);
    const auto start = Clock::now();
    client.Close();
    VERIFY(SecondsSince(start) < 1);
    VERIFY(Count(ReadFile(s_file.path), ",behind,") == (isStuck ? 0 : 1000) && client.Open());
    goesOn = true;
    VERIFY(Poll([] { return ThreadsNamed("metrics") == 0; }));
    client.Close();
    VERIFY(ReadFile(s_file.path) == "timestamp,datetime,context_id,event_type,param1,param2\n");
}

/// A full disk costs the lines and nothing else; a text of any length is one line.
void IsFullOrHasALongLine() {
    const std::string longText(std::size_t(Repetitions(64)) << 20, 'x');
    const Session session;
    MetricsRawClient full;
    MetricsRawClient client;
    VERIFY(Open(full, "/dev/full") && Open(client, s_file.path));
    Send(longText);
    for (int i = 0; i < 1000; ++i)
        Send("next", i);
    Flush(); // Close waits for 5 s only
    client.Close();
    const std::string text = ReadFile(s_file.path);
    VERIFY(text.find(",7," + longText + ",0\n") != std::string::npos);
    VERIFY(Count(text, ",7,next,") == 1000 && Count(text, ",7,next,999\n") == 1);
}

/// What a flush has delivered survives the sudden end of the process, in complete lines.
void IsKilled() {
    for (int run = 0; run < Repetitions(20); ++run) {
        const auto emitAndDie = []() -> int {
            Start();
            MetricsRawClient client;
            VERIFY(Open(client, s_file.path));
            std::thread([] {
                for (;;)
                    Send("meanwhile");
            }).detach();
            for (int i = 0; i < 1000; ++i)
                Send("before", i);
            Flush();
            return raise(SIGKILL);
        };
        VERIFY(RunChild(emitAndDie, std::chrono::seconds(60)).status == -SIGKILL);
        const std::string text = ReadFile(s_file.path);
        VERIFY(Count(text, ",7,before,") == 1000 && Count(text, ",7,before,999\n") == 1);
    }
}

/// A full life, a failing file in it, prints nothing and changes nothing.
void ShowsNothing() {
    const auto surroundings = [] {
        const std::string status = ReadFile("/proc/self/status");
        const std::size_t signals =
            status.find("SigBlk:"); // to the end of SigCgt: the handled ones
        return std::setlocale(LC_ALL, nullptr) + status.substr(signals, 3 * 25);
    };
    std::thread([] {}).join(); // glibc handles a signal of its own from then on
    const std::string before = surroundings();
    {
        const Session session;
        MetricsRawClient client;
        VERIFY(Open(client, "/dev/full"));
        std::thread([] { UseEverything("life"); }).join();
        client.SetBits("no such mnemonic", true);
    }
    VERIFY(IsInert() && surroundings() == before);
    VERIFY(std::fflush(nullptr) == 0 && lseek(1, 0, SEEK_CUR) == 0); // all output is in a file
}

} // namespace

int main(int argc, char** argv) {
    std::vector<Case> cases{{"ShortThreads", ShortThreads, 300},
                            {"FlushesAndClosesUnderLoad", FlushesAndClosesUnderLoad, 300},
                            {"ClosesAfterDisable", [] { ClosesAfterDisable(false); }},
                            {"ClosesAfterATimeOut", [] { ClosesAfterDisable(true); }},
                            {"AFullDiskAndALongLine", IsFullOrHasALongLine},
                            {"Killed", IsKilled, 600},
                            {"ShowsNothing", ShowsNothing}};
    if (sanitizer.empty()) // whose allocators keep what is freed
        cases.insert(cases.end(),
                     {{"MemoryGoesBack", MemoryGoesBack},
                      {"GuardsLeaveNothing", GuardsLeaveNothing},
                      {"ShortThreadsBehindTheShutdown", ShortThreadsBehindTheShutdown}});
    return RunCases(argc, argv, cases);
}
