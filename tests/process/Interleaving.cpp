// Orders that chance brings once in a million runs: the test stands inside of the library's calls
// of libc, and lets others go first.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <korsys/TEvent.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <set>
#include <system_error>
#include <vector>

using namespace Metrics;
using namespace Metrics::test;

namespace {

// What this thread does inside of these calls; null for nothing, which it also is in there.
thread_local void (*t_behindClock)() = nullptr;
thread_local void (*t_beforeWait)() = nullptr;
thread_local void (*t_beforeLock)() = nullptr;
thread_local void (*t_beforeMalloc)() = nullptr;
thread_local void (*t_beforeTgkill)(pid_t asked) = nullptr;
thread_local int t_falseAlarms = 0; // waits that end without a reason
thread_local bool t_canStartThreads = true;

template <class Function, class... Arguments>
void Call(Function& function, Arguments... arguments) {
    if (const auto own = std::exchange(function, nullptr)) {
        own(arguments...);
        if (function == nullptr)
            function = own;
    }
}
void DoNothing() {}

template <class Function>
Function* Libcs(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {
void* __libc_malloc(std::size_t size);
void* malloc(std::size_t size) noexcept {
    Call(t_beforeMalloc);
    return __libc_malloc(size);
}
long syscall(long number, ...) noexcept {
    static const auto real = Libcs<long(long, ...)>("syscall");
    va_list list;
    va_start(list, number);
    long a[6];
    for (long& argument : a)
        argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_tgkill)
        Call(t_beforeTgkill, static_cast<pid_t>(a[1]));
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    Call(t_behindClock);
    return result;
}
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) noexcept {
    static const auto real =
        Libcs<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return t_canStartThreads ? real(thread, attributes, run, argument) : EAGAIN;
}
int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    static const auto real = Libcs<int(pthread_mutex_t*)>("pthread_mutex_lock");
    Call(t_beforeLock);
    return real(mutex);
}
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* until) {
    static const auto real =
        Libcs<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>(
            "pthread_cond_clockwait");
    Call(t_beforeWait);
    return t_falseAlarms > 0 ? --t_falseAlarms, 0 : real(condition, mutex, clock, until);
}
}

namespace {

/// The delivery thread is held behind each of its looks at the clock by turns, while an event is
/// emitted and flushed: the flush waits for it, and the thread does not sleep over it.
void FlushesBehindAnyLookAtTheClock() {
    constexpr int looks = 20, tries = 5; // more than it takes in one round
    static std::atomic<int> left{-1};    // looks, until it is held
    static std::atomic<bool> isHeld{false};
    static std::atomic<std::int64_t> delivered{-1};
    static const pid_t flushing = gettid();
    static std::atomic<pid_t> delivering{0};
    Manager().SetThreadInitFunction([] {
        delivering = gettid();
        t_behindClock = [] {
            if (left < 0 || left-- > 0)
                return;
            isHeld = true;
            // In the flush; or in the call that wakes, when a pause of its own ended just then and
            // it looks with the lock held.
            VERIFY(Poll([] { return IsAsleep(flushing); }));
        };
    });
    const Session session;
    Consume(false, [](const MetricsEvent& event) { delivered = event.param1.integer; });
    for (int look = 0; look < looks; ++look) {
        double shortest = forever;
        for (int i = 0; i < tries; ++i) {
            // So that the same look is the same one each time.
            VERIFY(Poll([] { return IsAsleep(delivering); }));
            isHeld = false;
            left = look;
            while (!isHeld) {
                Manager().WaitUntilWritesFlushed(0); // wakes it
                for (const auto woken = Clock::now(); !isHeld && SecondsSince(woken) < 0.002;)
                    std::this_thread::yield();
            }
            Send(tries * look + i);
            const auto start = Clock::now();
            Flush();
            VERIFY(delivered == tries * look + i);
            shortest = std::min(shortest, SecondsSince(start));
        }
        VERIFY(shortest < 0.004); // it sleeps for 5 ms at least when nobody wakes it
    }
}

/// A thread emits its last event and ends when the library is about to ask whether it has ended.
void DeliversTheLastEventOfAThreadThatEnds() {
    static std::atomic<pid_t> id{0};
    static std::atomic<bool> goesOn{false}, hasEnded{false};
    static std::thread thread;
    std::atomic<int> delivered{0};
    Manager().SetThreadInitFunction([] {
        t_beforeTgkill = [](pid_t asked) {
            if (asked != id)
                return;
            goesOn = true;
            thread.join();
            hasEnded = true;
            t_beforeTgkill = [](pid_t) {};
        };
    });
    const Session session;
    Consume(false, [&delivered](const MetricsEvent& event) {
        delivered += event.bits == MetricsBits::act ? 1 : 0;
    });
    thread = std::thread([] {
        Send(1, 0, MetricsBits::act);
        id = gettid();
        while (!goesOn)
            std::this_thread::yield();
        Send(2, 0, MetricsBits::act);
    });
    VERIFY(Poll([] { return id != 0; }));
    Flush();
    for (int i = 0; i < 20; ++i) // so many new ones that it asks
        std::thread([] { Send(0); }).join();
    VERIFY(Poll([] { return hasEnded.load(); }));
    Flush();
    VERIFY(delivered == 2);
}

/// Of the calling thread.
bool BlocksAnySignal() {
    sigset_t mask;
    VERIFY(pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0);
    return sigisemptyset(&mask) == 0;
}

/// The system has no further thread for the delivery, and later it has one. What was emitted in
/// between is delivered, and threads that ended leave their place to new ones meanwhile.
void StartsAtTheSecondTry() {
    std::vector<std::int64_t> delivered;
    std::set<const void*> stacks;
    const auto consumer =
        MakeListener([&](const MetricsEvent& event) { delivered.push_back(event.param1.integer); });
    t_canStartThreads = false;
    int error = 0;
    try {
        Start();
    } catch (const std::system_error& failure) {
        error = failure.code().value();
    }
    t_canStartThreads = true;
    VERIFY(error == EAGAIN);
    VERIFY(!BlocksAnySignal());
    VERIFY(ThreadsNamed("metrics") == 0);
    Manager().SetBits(everyBit);
    VERIFY(Manager().AddConsumer(consumer, everyBit, false));
    Send(1);
    for (int i = 0; i < 200; ++i)
        std::thread([&] { stacks.insert(Manager().GetThreadContext().get()); }).join();
    VERIFY(stacks.size() < 100);
    Manager().Enable();
    VERIFY(!BlocksAnySignal());
    Send(2);
    VERIFY(Manager().Disable());
    VERIFY(delivered == std::vector<std::int64_t>({1, 2}));
}

/// The library is switched off while a registration is under way: it is refused, and the consumer
/// is not kept.
void RefusesWhoComesDuringTheEnd(bool synchronous) {
    const auto token = std::make_shared<int>();
    Start();
    auto consumer = MakeListener([token](const MetricsEvent&) {});
    t_beforeMalloc = [] {
        t_beforeMalloc = DoNothing;
        std::thread([] { VERIFY(Manager().Disable()); }).join();
    };
    VERIFY(!Manager().AddConsumer(std::move(consumer), everyBit, synchronous));
    VERIFY(!TestBits(0));
    VERIFY(token.use_count() == 1);
}

/// While the end of one registration frees what is not called any more, another one is being ended
/// whose consumer is: that one stays, for the delivery thread stands on it.
void KeepsWhoIsBeingCalled() {
    static MetricsListenerPtr called;
    static std::atomic<bool> isCalled{false}, goesOn{false};
    static std::atomic<pid_t> removing{0};
    static std::jthread thread;
    static int locks = 0;
    std::atomic<int> delivered{0};
    const Session session;
    const auto removed = Consume(false, [](const MetricsEvent&) {});
    called = Consume(false, [](const MetricsEvent&) {
        isCalled = true;
        VERIFY(Poll([] { return goesOn.load(); }));
    });
    Consume(false, [&delivered](const MetricsEvent&) { ++delivered; });
    t_beforeLock = [] {
        if (++locks < 4) // it was taken out and waited for, and is to be freed
            return;
        t_beforeLock = DoNothing;
        Send(1);
        VERIFY(Poll([] { return isCalled.load(); }));
        thread = std::jthread([] {
            removing = gettid();
            VERIFY(Manager().RemoveConsumer(std::move(called)));
        });
        VERIFY(Poll([] { return removing != 0 && IsAsleep(removing); }));
    };
    VERIFY(Manager().RemoveConsumer(removed));
    VERIFY(isCalled);
    std::vector<std::string> blocks; // what was freed is in other hands
    for (std::size_t size = 24; size <= 520; size += 16)
        blocks.resize(blocks.size() + 10, std::string(size - 1, '\x5A'));
    goesOn = true;
    thread.join();
    Flush();
    VERIFY(delivered == 1);
}

/// A signal that comes when the waiter has looked and does not sleep yet wakes it all the same; a
/// wait that ends without a reason goes on.
void WaitsForTheSignalAndNothingElse() {
    static korsys::TEvent event(false);
    static std::atomic<pid_t> signalling{0};
    static std::atomic<bool> hasSignalled{false};
    static std::jthread thread;
    t_falseAlarms = 3;
    auto start = Clock::now();
    VERIFY(!event.Wait(50));
    VERIFY(SecondsSince(start) >= 0.05);
    VERIFY(t_falseAlarms == 0);

    t_beforeWait = [] {
        thread = std::jthread([] {
            signalling = gettid();
            event.Signal();
            hasSignalled = true;
        });
        VERIFY(Poll([] { return hasSignalled || (signalling != 0 && IsAsleep(signalling)); }));
        t_beforeWait = DoNothing;
    };
    start = Clock::now();
    VERIFY(event.Wait(10'000));
    VERIFY(SecondsSince(start) < 5);
}

/// A thread that changes the mask is held anywhere in it, until the library is off.
void LeavesTheMaskEmptyBehindTheEnd() {
    static std::atomic<bool> isHeld{false}, goesOn{false};
    static std::atomic<unsigned> changes{0};
    std::signal(SIGUSR1, [](int) {
        isHeld = true;
        while (!goesOn)
            usleep(100);
    });
    MetricsManager& manager = Manager();
    std::jthread thread([&manager](const std::stop_token& isOver) {
        for (; !isOver.stop_requested(); changes.store(changes + 1, std::memory_order_relaxed))
            manager.SetBits(everyBit);
    });
    VERIFY(Poll([] { return changes > 1000; }));
    pthread_kill(thread.native_handle(), SIGUSR1);
    VERIFY(Poll([] { return isHeld.load(); }));
    MetricsManager::ShutdownAndFreeInstance();
    const unsigned before = changes;
    goesOn = true;
    VERIFY(Poll([before] { return changes - before >= 2; }));
    VERIFY(!TestBits(0));
    VERIFY(!TestBits(MetricsBits::act));
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(
        argc, argv,
        {{"FlushesBehindAnyLookAtTheClock", FlushesBehindAnyLookAtTheClock, 60},
         {"DeliversTheLastEventOfAThreadThatEnds", DeliversTheLastEventOfAThreadThatEnds, 60},
         {"RefusesARegistrationDuringTheEnd", [] { RefusesWhoComesDuringTheEnd(false); }, 60},
         {"RefusesASynchronousOneDuringTheEnd", [] { RefusesWhoComesDuringTheEnd(true); }, 60},
         {"KeepsWhoIsBeingCalled", KeepsWhoIsBeingCalled, 60},
         {"StartsAtTheSecondTry", StartsAtTheSecondTry, 60},
         {"WaitsForTheSignalAndNothingElse", WaitsForTheSignalAndNothingElse, 60},
         {"LeavesTheMaskEmptyBehindTheEnd", LeavesTheMaskEmptyBehindTheEnd, 30, 50}});
}
