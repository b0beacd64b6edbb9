// Much of everything: threads that come and go, flushes and closes under load, bursts; and what is
// left of it.

#include "../support/Process.h"
#include "Exercise.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <clocale>
#include <cstdint>
#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

/// Threads that emit all the time, but do not outrun the delivery.
class Load {
public:
    Load() {
        for (int i = 0; i < 3; ++i)
            m_threads.emplace_back([this] {
                while (!m_isOver) {
                    for (int n = 0; n < 20; ++n)
                        EmitOne("load", n);
                    Manager().WaitUntilWritesFlushed(1);
                }
            });
    }
    ~Load() {
        m_isOver = true;
        for (std::thread& thread : m_threads)
            thread.join();
    }

private:
    std::atomic<bool> m_isOver{false};
    std::vector<std::thread> m_threads;
};

/// What an ended thread left attached is not seen by a later one.
void NewThreadsHaveNoContext() {
    std::vector<std::unique_ptr<Context>> left;
    const Session session;
    for (int i = 0; i < Repetitions(2000); ++i)
        std::thread([&left] {
            VERIFY(Manager().GetCurrentThreadContext() == nullptr && !TestBitsAndContext(0));
            VERIFY(Manager().GetThreadContext()->GetCurrentContext() == nullptr);
            VERIFY(Manager().GetCurrentThreadContextId() == 0 && Context::Create(false) == 0);
            left.push_back(std::make_unique<Context>(0, Context::Create(true)));
            VERIFY(Manager().GetCurrentThreadContext() == left.back().get());
        }).join();
}

void ThreadsLeaveNoMemory() {
    std::atomic<int> delivered{0};
    const Session session;
    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent& event) {
                                     delivered += event.eventType == MetricsEventType::Custom;
                                 }),
                                 ~0ull, false));
    const auto run = [](int threads) {
        for (int i = 0; i < threads; ++i)
            std::thread([] { Context(0, Context::Create(true)).Emit("of a short thread"); }).join();
        Manager().WaitUntilWritesFlushed(20000);
    };
    run(500);
    const long before = ResidentKilobytes();
    const int threads = Repetitions(20000);
    run(threads);
    const long grown = ResidentKilobytes() - before;
    std::printf("%d threads left %ld KiB\n", threads, grown);
    VERIFY(delivered == threads + 500 && (METRICS_SANITIZED || grown < 2048));
}

/// A flush sees the caller's own event through, whatever else is emitted meanwhile.
void FlushesUnderLoad() {
    std::atomic<std::int64_t> last{-1};
    double longest = 0;
    const Session session;
    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent& event) {
                                     if (event.bits == MetricsBits::act)
                                         last = event.param1.integer;
                                 }),
                                 ~0ull, false));
    const Load load;
    const int flushes = Repetitions(2000);
    for (int i = 0; i < flushes; ++i) {
        EmitOne(i, {}, MetricsBits::act);
        const auto start = Clock::now();
        Manager().WaitUntilWritesFlushed(20000);
        VERIFY(last == i);
        longest = std::max(longest, SecondsSince(start));
    }
    std::printf("%d flushes, the longest took %.3f s\n", flushes, longest);
    VERIFY(longest < 2);
}

/// Closing a file under load: complete, at rest afterwards, and clean when it is opened again.
void ClosesUnderLoad() {
    const TemporaryFile file;
    double longest = 0;
    const Session session;
    const Load load;
    for (int i = 0; i < Repetitions(100); ++i) {
        MetricsRawClient client;
        client.SetOutputFileName(file.path);
        VERIFY(client.Open());
        for (int n = 0; n < 10; ++n)
            EmitOne("own", n);
        const auto start = Clock::now();
        client.Close();
        longest = std::max(longest, SecondsSince(start));
        const std::string text = ReadFile(file.path);
        VERIFY(text.find("timestamp,") == 0 && text.back() == '\n' && Count(text, ",own,") == 10);
        Manager().WaitUntilWritesFlushed(20000); // many lines later
        VERIFY(ReadFile(file.path) == text);
    }
    std::printf("%d times, the longest Close took %.3f s\n", Repetitions(100), longest);
    VERIFY(longest < 2);
}

/// Disable has timed out since another consumer was stuck, which goes on when the file is closed.
void ClosesBeforeAStuckConsumerGoesOn() {
    const TemporaryFile file;
    std::atomic<bool> goesOn{false};
    std::atomic<bool> isStuck{false};
    MetricsRawClient client;
    client.SetOutputFileName(file.path);
    Start();
    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent& event) {
                                     if (event.eventType != MetricsEventType::Custom)
                                         return;
                                     isStuck = true;
                                     VERIFY(Poll([&] { return goesOn.load(); }));
                                 }),
                                 ~0ull, false));
    VERIFY(client.Open());
    for (int i = 0; i < 1000; ++i)
        EmitOne("behind", i);
    VERIFY(Poll([&] { return isStuck.load(); }));
    VERIFY(!Manager().Disable());
    const auto start = Clock::now();
    client.Close();
    VERIFY(SecondsSince(start) < 1);
    VERIFY(client.Open());
    goesOn = true;
    VERIFY(Poll([] { return ThreadsNamed("metrics") == 0; }));
    client.Close();
    VERIFY(ReadFile(file.path) == "timestamp,datetime,context_id,event_type,param1,param2\n");
}

/// Bursts that the delivery falls behind of take no more memory than the first ones did.
void BurstsLeaveNoMemory() {
    const int events = Repetitions(400000);
    std::atomic<int> delivered{0};
    std::atomic<int> held{0};
    std::atomic<int> released{0};
    const Session session;
    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent& event) {
                                     delivered += event.eventType == MetricsEventType::Custom;
                                     if (event.bits == MetricsBits::act)
                                         VERIFY(Poll(
                                             [&, first = ++held] { return released >= first; }));
                                 }),
                                 ~0ull, false));
    Context context(0, Context::Create(true));
    long third = 0;
    for (int burst = 1; burst <= 15; ++burst) {
        EmitOne("hold back", {}, MetricsBits::act);
        VERIFY(Poll([&] { return held == burst; }));
        for (int i = 1; i < events; ++i)
            context.Emit("a text that is too long to be stored inside of a string", i);
        released = burst;
        Manager().WaitUntilWritesFlushed(60000);
        VERIFY(delivered == burst * events);
        if (burst <= 3)
            third = std::max(third, ResidentKilobytes());
    }
    const long last = ResidentKilobytes();
    std::printf("%d events each: %ld KiB after 3 bursts, %ld KiB after 15\n", events, third, last);
    VERIFY(METRICS_SANITIZED || last < third + 8192);
}

/// All that the library could change of the process around it.
std::string Surroundings() {
    std::string all;
    for (int number = 1; number < 65; ++number) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        all += std::to_string(reinterpret_cast<std::uintptr_t>(action.sa_sigaction)) + ' ' +
               std::to_string(action.sa_flags) + '\n';
    }
    sigset_t blocked{};
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    all.append(reinterpret_cast<const char*>(&blocked), sizeof blocked);
    for (char** variable = environ; *variable != nullptr; ++variable)
        all += std::string(*variable) + '\n';
    all += std::setlocale(LC_ALL, nullptr);
    for (int number = 0; number < 100; ++number)
        all += fcntl(number, F_GETFD) < 0 ? '-' : '+';
    const mode_t mask = umask(0);
    umask(mask);
    return all + std::to_string(mask) + ReadFile("/proc/self/limits");
}

/// A full life, a failing file in it, prints nothing and changes nothing.
void ShowsNothing() {
    const Ended ended = RunChild(
        [] {
            const TemporaryFile file;
            const std::string before = Surroundings();
            {
                const Session session;
                MetricsRawClient client;
                client.SetOutputFileName("/dev/full");
                VERIFY(client.Open());
                UseEverything("life");
                client.SetOutputFileName(file.path);
                VERIFY(client.Open());
                std::thread([] { UseEverything("life"); }).join();
                client.SetBits("no such mnemonic", true);
                client.Close();
            }
            VERIFY(IsInert() && Surroundings() == before);
            return 0;
        },
        std::chrono::seconds(20));
    std::fputs(ended.output.c_str(), stderr);
    VERIFY(ended.status == 0 && ended.output.empty());
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"new threads have no context", NewThreadsHaveNoContext},
                     {"threads leave no memory", ThreadsLeaveNoMemory, 300},
                     {"flushes under load", FlushesUnderLoad, 300},
                     {"closes under load", ClosesUnderLoad, 300},
                     {"closes before a stuck consumer goes on", ClosesBeforeAStuckConsumerGoesOn},
                     {"bursts leave no memory", BurstsLeaveNoMemory, 600},
                     {"shows nothing", ShowsNothing}});
}
