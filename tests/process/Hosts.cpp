// Hosts that make it hard: they end while somebody is stuck, lock across calls, cancel threads,
// schedule them by their own rules, and leave in every way that there is.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <mutex>
#include <optional>

using namespace Metrics;
using namespace Metrics::test;

namespace {

/// Memory that both this process and its children see.
template <class T>
T& MakeShared() {
    void* const memory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    VERIFY(memory != MAP_FAILED);
    return *new (memory) T;
}

/// A context whose memory reads as garbage once it is destroyed.
class Remains {
public:
    Remains(std::uint64_t parentId, std::uint64_t id)
        : m_context(new (m_memory) Context(parentId, id)) {}
    Context* operator->() { return m_context; }
    void Destroy() {
        m_context->~Context();
        std::memset(m_memory, 0xAB, sizeof m_memory);
    }

private:
    alignas(Context) unsigned char m_memory[sizeof(Context)];
    Context* m_context;
};

// The end ---------------------------------------------------------------------------------------

/// A Shutdown event that is emitted through a scope ends the delivery like any other.
void ShutdownThroughAScope() {
    const TemporaryFile file;
    std::vector<MetricsEventType> synchronous, asynchronous;
    MetricsRawClient client;
    const Session session;
    VERIFY(Open(client, file.path));
    const auto note = [](auto& types) {
        return [&types](const MetricsEvent& event) { types.push_back(event.eventType); };
    };
    Context context(0, 1);
    const Scope scope("scope", MetricsBits::act);
    Flush();
    Consume(true, note(synchronous));
    const auto consumer = Consume(false, note(asynchronous));
    Manager().SetBitsAbsolute(MetricsBits::net); // a Shutdown passes any mask
    scope.EmitImpl(MetricsEventType::Shutdown, {}, {});
    Send("behind", 0, MetricsBits::net);
    Flush();
    VERIFY(Poll([&] { return !Manager().AddConsumer(consumer, 0, false); }));
    VERIFY(synchronous.front() == MetricsEventType::Shutdown);
    VERIFY(asynchronous.empty());
    client.Close();
    const std::string text = ReadFile(file.path);
    VERIFY(Count(text, ",5,scope,0\n") == 1);
    VERIFY(Count(text, ",1,1,") == 0); // of type 1, in context 1
    VERIFY(Count(text, "behind") == 0);
}

/// A consumer that does not return, as do both kinds of end below.
struct StuckConsumer {
    std::atomic<bool> isStuck{false}, goesOn{false};
    void Register() {
        VERIFY(Consume(false, [this](const MetricsEvent&) {
            isStuck = true;
            VERIFY(Poll([this] { return goesOn.load(); }, std::chrono::seconds(60)));
        }));
        Send("stuck");
        VERIFY(Poll([this] { return isStuck.load(); }));
    }
    void Release() {
        goesOn = true;
        VERIFY(Poll([] { return ThreadsNamed("metrics") == 0; }));
    }
};

/// The mask is 0 from the end on, also for as long as a consumer is stuck.
void NothingPassesAfterAnEndThatGaveUp() {
    StuckConsumer consumer;
    Start();
    consumer.Register();
    MetricsManager::ShutdownAndFreeInstance();
    VERIFY(!TestBits(0));
    VERIFY(!TestBits(MetricsBits::act));
    VERIFY(IsInert());
    consumer.Release();
    VERIFY(!TestBits(0));
}

/// Closing the client, then the shutdown, while a consumer is stuck: each ends by its deadline.
void ClosesWhileAConsumerIsStuck() {
    const TemporaryFile file;
    StuckConsumer consumer;
    MetricsRawClient client;
    Start();
    VERIFY(Open(client, file.path));
    consumer.Register();
    const auto start = Clock::now();
    client.Close();
    MetricsManager::ShutdownAndFreeInstance();
    VERIFY(SecondsSince(start) < 10); // 5 for what is queued, 1 for the file, 1 for the shutdown
    consumer.Release();
}

/// The same when the file is a pipe whose reader sleeps.
void ClosesAPipeThatIsNotRead() {
    const TemporaryFile pipe;
    VERIFY(mkfifo(pipe.path.c_str(), 0600) == 0);
    const int reader = open(pipe.path.c_str(), O_RDONLY | O_NONBLOCK);
    MetricsRawClient client;
    Start();
    VERIFY(Open(client, pipe.path));
    for (int i = 0; i < 100; ++i)
        Send(std::string(10000, 'x'));
    const auto start = Clock::now();
    client.Close();
    MetricsManager::ShutdownAndFreeInstance();
    VERIFY(SecondsSince(start) < 10);
    close(reader);
}

/// exit while another thread is inside of ShutdownAndFreeInstance: it waits for that one, also
/// when the consumers of the Shutdown make that take longer than the exit alone may.
void ExitDuringAShutdown() {
    static std::atomic<int>& delivered = MakeShared<std::atomic<int>>();
    const Ended ended = RunChild([] {
        Start();
        static std::atomic<bool> isEnding{false};
        Consume(true, [](const MetricsEvent& event) {
            if (event.eventType != MetricsEventType::Shutdown)
                return;
            isEnding = true;
            usleep(600000);
        });
        Consume(false, [](const MetricsEvent&) {
            if (delivered == 0) {
                VERIFY(Poll([] { return isEnding.load(); }));
                usleep(1200000); // from the beginning
            }
            ++delivered;
        });
        for (int i = 0; i < 1000; ++i)
            Send(i);
        std::thread([] { MetricsManager::ShutdownAndFreeInstance(); }).detach();
        VERIFY(Poll([] { return isEnding.load(); }));
        return 0; // exits
    });
    VERIFY(ended.output == "");
    VERIFY(ended.status == 0);
    VERIFY(delivered == 1000);
}

/// main has ended by pthread_exit, and no thread but ours is left, of which one was set aside in a
/// consumer and has come back: the process ends, and it is told.
void MainEndsAlone() {
    struct Seen {
        std::atomic<int> delivered{0}, shutdowns{0};
    };
    static Seen& seen = MakeShared<Seen>();
    const pid_t host = fork();
    if (host == 0) {
        Start();
        Consume(true, [](const MetricsEvent& event) {
            if (event.eventType != MetricsEventType::Shutdown)
                return;
            ++seen.shutdowns;
            Send("emitted for the end");
        });
        Consume(false, [](const MetricsEvent&) { ++seen.delivered; });
        const auto slow = MakeListener([](const MetricsEvent&) {
            VERIFY(Poll([] { return Manager().GetStatistics().consumers.back().setAside; }));
        });
        Manager().AddConsumer(slow, everyBit, false, {"slow", 0, 1});
        Send("event");
        pthread_exit(nullptr);
    }
    int status = -1;
    const bool ends = Poll([&] { return waitpid(host, &status, WNOHANG) == host; });
    kill(host, SIGKILL);
    VERIFY(ends);
    VERIFY(hasAddressSanitizer || status == 0); // which misses what libc keeps of main
    VERIFY(seen.delivered == 2);
    VERIFY(seen.shutdowns == 1);
}

// Threads ---------------------------------------------------------------------------------------

/// An asynchronous consumer takes a mutex of the host. A worker emits under that mutex, and a third
/// thread registers: nobody waits for anybody for good.
void EmitsUnderAMutexThatAConsumerTakes() {
    std::mutex mutex;
    std::atomic<bool> isCalled{false};
    std::atomic<pid_t> registering{0};
    std::atomic<int> registered{0};
    const Session session;
    Consume(true, [](const MetricsEvent&) {});
    const auto consumer = Consume(false, [&](const MetricsEvent&) {
        isCalled = true;
        const std::lock_guard lock(mutex);
    });
    std::jthread third;
    {
        const std::lock_guard lock(mutex);
        Send("first");
        VERIFY(Poll([&] { return isCalled.load(); }));
        third = std::jthread([&] {
            registering = gettid();
            Consume(true, [](const MetricsEvent&) {}); // of the other kind: does not wait
            ++registered;
            Consume(false, [](const MetricsEvent&) {});
            ++registered;
        });
        VERIFY(
            Poll([&] { return registered == 2 || (registering != 0 && IsAsleep(registering)); }));
        const auto start = Clock::now();
        for (int i = 0; i < 100; ++i)
            Send("under the mutex");
        VERIFY(SecondsSince(start) < 5);
        VERIFY(Poll([&] { return registered >= 1; }));
    }
    third.join();
    VERIFY(Manager().RemoveConsumer(consumer));
}

/// A context of this thread is destroyed by another one: this one does not read what is left of it.
void DestroysAContextElsewhere() {
    std::vector<std::uint64_t> ids;
    const Session session;
    Context outermost(0, 1);
    outermost.OpenScope();
    Remains context(1, 2);
    context->OpenScope();
    std::thread([&] { context.Destroy(); }).join();
    Consume(true, [&ids](const MetricsEvent& event) { ids.push_back(event.contextId); });
    VERIFY(Manager().GetCurrentThreadContextId() <= 2);
    TestBitsAndContext(0);
    AttributeImpl("name", "value", 0);
    Attribute("name", "value");
    Scope("scope").Emit("value");
    if (const auto child = UniqueMetricsContext(true).Open())
        VERIFY(child->GetParentContextId() <= 2);
    for (const std::uint64_t id : ids)
        VERIFY(id <= 3);
    outermost.AttachToThread();
    VERIFY(Manager().GetCurrentThreadContextId() == 1);
}

/// The same at exit: a static client, whose context is that of main, while main emits.
void ExitsOnAnotherThreadThanTheClients() {
    static std::atomic<int> emitted{0};
    static const TemporaryFile file;
    static MetricsRawClient client;
    Start();
    VERIFY(Open(client, file.path));
    Consume(true, [](const MetricsEvent& event) { VERIFY(event.contextId <= 1); });
    std::thread([] {
        VERIFY(Poll([] { return emitted > 1000; }));
        std::exit(0);
    }).detach();
    for (;; ++emitted) {
        Attribute("name", "value");
        Scope("scope").Emit("value");
    }
}

/// What a scope emits stands in the context that it opened in, whatever has become of that.
void EmitsThroughAScopeThatOutlivesItsContext() {
    std::vector<std::uint64_t> ids;
    const Session session;
    Consume(true, [&ids](const MetricsEvent& event) { ids.push_back(event.contextId); });
    Context outer(0, 1);
    std::optional<Scope> scope;
    {
        Remains inner(1, 2);
        outer.Emit("in the current one"); // opens the scope of the outer one in there
        scope.emplace("late", MetricsBits::act);
        inner.Destroy();
    }
    ids.clear();
    outer.Emit("again");
    scope->Emit("again");
    scope.reset();
    outer.Close();
    // Custom, Custom, ScopeClosed and ScopeClosed; then ContextClosed.
    VERIFY(ids == std::vector<std::uint64_t>({2, 2, 2, 2, 0}));
}

/// A thread is cancelled while it waits inside of a call: it finishes the call, and ends at its
/// next cancellation point.
void IsCancelledInside(void (*call)(MetricsRawClient&)) {
    static std::atomic<pid_t> calling{0};
    static std::atomic<bool> isHeld{false}, goesOn{false}, hasReturned{false};
    static const TemporaryFile file;
    static MetricsRawClient client;
    Start();
    Consume(false, [](const MetricsEvent&) {
        isHeld = true;
        Poll([] { return goesOn.load(); });
    });
    std::thread caller([call] {
        VERIFY(Open(client, file.path));
        VERIFY(Poll([] { return isHeld.load(); }));
        calling = gettid();
        call(client);
        hasReturned = true;
        for (;;)
            pause();
    });
    VERIFY(Poll([] { return calling != 0 && IsAsleep(calling); }));
    VERIFY(pthread_cancel(caller.native_handle()) == 0);
    goesOn = true;
    caller.join();
    VERIFY(hasReturned);
}

/// Enabled from a pinned thread of another policy: the delivery thread has the ordinary one.
void EnablesFromARealTimeThread() {
    sched_param parameters{};
    parameters.sched_priority = 1;
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &processors);
    VERIFY(sched_setaffinity(0, sizeof processors, &processors) == 0);
    if (sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        parameters.sched_priority = 0; // without the right to that one
        VERIFY(sched_setscheduler(0, SCHED_BATCH, &parameters) == 0);
    }
    std::atomic<int> policy{-1}, processorCount{-1};
    Manager().SetThreadInitFunction([&] {
        cpu_set_t own;
        VERIFY(sched_getaffinity(0, sizeof own, &own) == 0);
        processorCount = CPU_COUNT(&own);
        policy = sched_getscheduler(0);
    });
    const Session session;
    VERIFY(Poll([&] { return policy != -1; }));
    VERIFY(policy == SCHED_OTHER);
    VERIFY(processorCount == 1); // as inherited
}

// Processes -------------------------------------------------------------------------------------

/// A child that no fork handler has seen: its end takes no time, and nothing is written twice.
void ForksWithoutHandlers() {
    static const TemporaryFile file;
    static MetricsRawClient client;
    Start();
    VERIFY(Open(client, file.path));
    Send("once");
    double shortest = 100;
    for (int i = 0; i < 3; ++i) {
        const auto start = Clock::now();
        const pid_t child = _Fork();
        if (child == 0) {
            Send("of the child");
            client.Close();
            MetricsManager::ShutdownAndFreeInstance();
            std::_Exit(0);
        }
        int status = -1;
        VERIFY(waitpid(child, &status, 0) == child);
        VERIFY(status == 0);
        shortest = std::min(shortest, SecondsSince(start));
    }
    VERIFY(shortest < 0.7);
    client.Close();
    VERIFY(Count(ReadFile(file.path), ",7,once,0\n") == 1);
    VERIFY(Count(ReadFile(file.path), "of the child") == 0);
}

// Cost ------------------------------------------------------------------------------------------

/// Builds nothing for a context's events while the mask is 0, whatever they are given.
void BuildsNothingWhileTheMaskIsZero() {
    struct NeverBuilt {
        operator MetricsValue() const { Fail("built", __FILE__, __LINE__); }
    };
    const Session session;
    Context used(0, 1);
    used.OpenScope();
    Context fresh(0, 2);
    Manager().SetBitsAbsolute(0);
    for (Context* const context : {&used, &fresh}) {
        context->Emit(NeverBuilt());
        context->Emit(NeverBuilt(), 1);
        context->Emit("literal", NeverBuilt());
    }
}

} // namespace

int main(int argc, char** argv) {
    const auto close = [](MetricsRawClient& client) { client.Close(); };
    const auto disable = [](MetricsRawClient&) { Manager().Disable(); };
    const auto shutDown = [](MetricsRawClient&) { MetricsManager::ShutdownAndFreeInstance(); };
    std::vector<Case> cases{
        {"ShutdownThroughAScope", ShutdownThroughAScope},
        {"NothingPassesAfterAnEndThatGaveUp", NothingPassesAfterAnEndThatGaveUp},
        {"ClosesWhileAConsumerIsStuck", ClosesWhileAConsumerIsStuck, 30},
        {"ClosesAPipeThatIsNotRead", ClosesAPipeThatIsNotRead, 30},
        {"ExitDuringAShutdown", ExitDuringAShutdown, 30},
        {"EmitsUnderAMutexThatAConsumerTakes", EmitsUnderAMutexThatAConsumerTakes, 30},
        {"DestroysAContextElsewhere", DestroysAContextElsewhere},
        {"ExitsOnAnotherThreadThanTheClients", ExitsOnAnotherThreadThanTheClients, 30, 20},
        {"EmitsThroughAScopeThatOutlivesItsContext", EmitsThroughAScopeThatOutlivesItsContext},
        {"EnablesFromARealTimeThread", EnablesFromARealTimeThread, 30},
        {"BuildsNothingWhileTheMaskIsZero", BuildsNothingWhileTheMaskIsZero}};
    if (sanitizer.find("address") == std::string_view::npos) { // which a forced unwinding confuses
        cases.push_back({"IsCancelledInsideOfClose", [=] { IsCancelledInside(close); }, 30});
        cases.push_back({"IsCancelledInsideOfDisable", [=] { IsCancelledInside(disable); }, 30});
        cases.push_back(
            {"IsCancelledInsideOfTheShutdown", [=] { IsCancelledInside(shutDown); }, 30});
    }
    if (sanitizer != "thread") // whose runtime has a thread of its own
        cases.push_back({"MainEndsAlone", MainEndsAlone, 60});
    if (sanitizer.empty()) // whose runtimes count on their handlers
        cases.push_back({"ForksWithoutHandlers", ForksWithoutHandlers, 30});
    return RunCases(argc, argv, cases);
}
