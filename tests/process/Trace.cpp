// Traces, read by babeltrace2: all that happened is in them, whatever becomes of the process that
// writes them, and of the disk.

#include "../support/Trace.h"
#include "../support/Exercise.h"
#include "../support/Process.h"

#include "CsvLine.h"
#include "TraceFile.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <array>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

using namespace Metrics;
using namespace Metrics::test;

namespace {

std::atomic<bool> s_diskIsFull{false};
int s_writesToLive = -1;                  // then the process is killed in the middle of one
std::atomic<bool> s_writesInSteps{false}; // a few bytes each, and every other one is interrupted

} // namespace

// Stands before libc's. A disk that is full takes a part of what it is given, then nothing, but
// what goes in the place of something else.
extern "C" ssize_t pwrite(int file, const void* bytes, size_t size, off_t offset) {
    if (s_writesToLive == 0) {
        syscall(SYS_pwrite64, file, bytes, size == 8 ? 0 : size / 2, offset);
        raise(SIGKILL);
    }
    s_writesToLive -= s_writesToLive > 0 ? 1 : 0;
    if (s_writesInSteps) {
        static bool isInterrupted = false;
        isInterrupted = !isInterrupted;
        if (isInterrupted)
            return errno = EINTR, -1;
        return syscall(SYS_pwrite64, file, bytes, std::min<std::size_t>(size, 100), offset);
    }
    const bool isFull = s_diskIsFull && size != 8;
    if (isFull && size < 1000)
        return errno = ENOSPC, -1;
    return syscall(SYS_pwrite64, file, bytes, isFull ? size - 999 : size, offset);
}

// What the library knows, for a file that this program writes itself.
static std::int32_t s_emitter = 0;
std::int32_t Metrics::GetEventThreadId() noexcept {
    return s_emitter;
}

namespace {

/// A folder of this process alone; removed in the end.
struct TemporaryFolder {
    std::string path = "test." + std::to_string(getpid()) + ".trace";
    ~TemporaryFolder() { std::filesystem::remove_all(path); }
};

const TemporaryFolder s_folder;
const TemporaryFile s_file;

bool OpenTrace(MetricsTraceClient& client, std::uint64_t kept = 0) {
    client.SetOutputFileName(s_folder.path);
    client.SetKeptSize(kept);
    return client.Open();
}

bool IsSame(const MetricsValue& a, const MetricsValue& b) {
    if (a.kind != b.kind)
        return false;
    switch (a.kind) {
    case MetricsValue::Kind::Boolean:
        return a.boolean == b.boolean;
    case MetricsValue::Kind::Integer:
    case MetricsValue::Kind::Double:
        return a.integer == b.integer;
    case MetricsValue::Kind::String:
        return *a.text == *b.text;
    }
    return true; // of no kind that is known: there is nothing but the kind
}

bool IsSame(const MetricsEvent& a, const MetricsEvent& b) {
    return a.eventType == b.eventType && a.sourceId == b.sourceId && a.contextId == b.contextId &&
           a.bits == b.bits && a.timestamp == b.timestamp && a.unixSeconds == b.unixSeconds &&
           a.unixMicroseconds == b.unixMicroseconds && IsSame(a.param1, b.param1) &&
           IsSame(a.param2, b.param2);
}

std::mt19937_64 s_random(1);

/// All that a value may be, and the odd ones often.
MetricsValue RandomValue() {
    const std::uint64_t bits = s_random() >> s_random() % 64;
    switch (s_random() % 12) {
    case 0:
        return s_random() % 2 == 0;
    case 1:
    case 2:
        return std::ldexp(static_cast<double>(bits), static_cast<int>(s_random() % 200) - 100);
    case 3: {
        MetricsValue odd(bits);
        odd.kind = static_cast<MetricsValue::Kind>(4 + bits % 1000);
        return odd;
    }
    case 4:
    case 5:
    case 6:
    case 7: {
        static constexpr std::array<std::size_t, 6> sizes = {0, 1, 7, 8, 100, 1000};
        std::string text(sizes[s_random() % sizes.size()], 'x');
        for (char& c : text)
            c = static_cast<char>(s_random() % 3 == 0 ? s_random() : 'a' + s_random() % 26);
        return text;
    }
    default:
        return bits;
    }
}

/// Events whose stamps jump in every direction, as no two threads would make them within years.
void HoldsEveryField() {
    std::vector<MetricsEvent> events(std::size_t(Repetitions(30'000)));
    std::uint64_t upTime = 1ul << 50, wall = 1'700'000'000'000'000;
    for (MetricsEvent& event : events) {
        const bool jumps = s_random() % 100 == 0;
        const std::uint64_t jump = s_random() % (1ul << 35) - (1ul << 34);
        upTime += s_random() % 3000 - 1000 + (jumps ? jump : 0);
        wall += s_random() % 3 - 1 + (jumps ? jump / 1000 : s_random() % 100 == 0 ? jump : 0);
        event.eventType = static_cast<MetricsEventType>(
            jumps ? static_cast<int>(s_random()) : static_cast<int>(s_random() % 12) - 1);
        event.sourceId = s_random() >> s_random() % 64;
        event.contextId = s_random() >> s_random() % 64;
        event.bits = s_random();
        event.timestamp = upTime;
        event.unixSeconds = wall / 1'000'000;
        event.unixMicroseconds = static_cast<std::uint32_t>(wall % 1'000'000);
        event.param1 = RandomValue();
        event.param2 = RandomValue();
    }
    events[events.size() / 2].param1 = std::string(1 << 20, 'y'); // more than a packet has room for
    {
        detail::TraceFile file(s_folder.path, 0);
        VERIFY(file.IsOpen());
        for (const MetricsEvent& event : events) {
            s_emitter = static_cast<std::int32_t>(&event - events.data());
            file.Add(event);
        }
        VERIFY(file.CloseUntil(Clock::now()) && !file.HasFailed() && file.Discarded() == 0);
    }
    const Trace trace = ReadTrace(s_folder.path);
    VERIFY(trace.events.size() == events.size());
    std::uint64_t clock = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        VERIFY(IsSame(trace.events[i].event, events[i]) && trace.events[i].clock >= clock);
        VERIFY(trace.events[i].tid == static_cast<std::int64_t>(i));
        clock = trace.events[i].clock;
    }
    VERIFY(Complaints(s_folder.path).empty());
}

/// Who wrote it, in bytes of every kind, and when. However long the command line is, the next run
/// of the same program knows the trace for one of its own.
void DescribesItself() {
    const std::string argument = "a\"b\\c\n?\xff%" + std::string(100'000, 'x');
    std::string commandLine = ReadFile("/proc/self/cmdline");
    if (commandLine.find(argument) == std::string::npos) {
        execl("/proc/self/exe", "trace_test", "DescribesItself", argument.c_str(), nullptr);
        VERIFY(false);
    }
    VERIFY(prctl(PR_SET_NAME, "a\"b\\c\n") == 0);
    const Session session;
    VERIFY(Poll([] { return AppUpTime() > 50'000'000; })); // which is not to be in the wall time
    MetricsTraceClient client;
    for (int run = 0; run < 2; ++run) {
        VERIFY(OpenTrace(client));
        for (int i = 0; i < 100; ++i)
            Send("event", i);
        VERIFY(client.Close(forever));
    }
    Trace trace = ReadTrace(s_folder.path);
    commandLine.pop_back();
    std::replace(commandLine.begin(), commandLine.end(), '\0', ' ');
    VERIFY(trace.environment["command_line"] == commandLine);
    VERIFY(trace.environment["procname"] == "a\"b\\c");
    VERIFY(trace.environment["vpid"] == std::to_string(getpid()));
    std::string host(256, '\0');
    VERIFY(gethostname(host.data(), host.size()) == 0);
    VERIFY(trace.environment["hostname"] == host.c_str());
    // Of the event whose two clocks were read with the least between.
    std::int64_t off = std::numeric_limits<std::int64_t>::max();
    for (const auto& [event, tid, clock, wall] : trace.events)
        off =
            std::min(off, std::abs(wall - static_cast<std::int64_t>(event.unixSeconds * 1'000'000 +
                                                                    event.unixMicroseconds) *
                                              1000));
    VERIFY(trace.events.size() == 103 && off < 1'000'000);
    VERIFY(Complaints(s_folder.path).empty());
}

/// Both clients in one run: the same events in the same order, with the same texts and stamps.
void HoldsWhatTheCsvFileHolds() {
    const Session session;
    std::vector<MetricsEvent> seen;
    MetricsTraceClient client;
    MetricsRawClient csv;
    Consume(false, [&seen](const MetricsEvent& event) { seen.push_back(event); });
    VERIFY(OpenTrace(client));
    Flush(); // lest the CSV file gets what was queued before it was opened
    VERIFY(Open(csv, s_file.path));
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < Repetitions(1000); ++i) {
                UseEverything("text " + std::to_string(t));
                Send(std::string("a\0b\x01\xff\n\"'\\", 9), -0.1 * i, MetricsBits::act);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    VERIFY(csv.Close(forever) && client.Close(forever) && client.GetDiscardedEvents() == 0);
    Flush();

    const Trace trace = ReadTrace(s_folder.path);
    const std::string text = ReadFile(s_file.path);
    std::string expected(detail::csvHeader);
    detail::CsvLine line;
    // The trace was opened earlier and closed later: before and behind stand its own context's
    // events.
    const std::size_t first = 2; // created and opened
    for (std::size_t i = 0; i < trace.events.size(); ++i) {
        VERIFY(IsSame(trace.events[i].event, seen[i]));
        if (const auto& [event, tid, clock, wall] = trace.events[i];
            event.eventType == MetricsEventType::Attribute && *event.param1.text == "'tid'")
            VERIFY(tid == event.param2.integer);
        if (i >= first && i < trace.events.size() - 1)
            expected += line.Render(trace.events[i].event);
    }
    VERIFY(trace.events.size() <= seen.size() && expected == text);
    VERIFY(Complaints(s_folder.path).empty());
}

/// Whole packets, nothing missing before the last one, and all that a flush has delivered before.
void IsWhole(std::int64_t flushed) {
    std::int64_t next = -1;
    for (const auto& [event, tid, clock, wall] : ReadTrace(s_folder.path).events)
        if (event.eventType == MetricsEventType::Custom) {
            VERIFY(next == -1 || event.param2.integer == next);
            next = event.param2.integer + 1;
        }
    VERIFY(next > flushed);
}

void IsKilled() {
    std::mt19937 random(1);
    for (int run = 0; run < Repetitions(100); ++run) {
        int ready[2];
        VERIFY(pipe2(ready, O_CLOEXEC) == 0);
        const pid_t child = fork();
        if (child == 0) {
            Start();
            MetricsTraceClient client;
            VERIFY(OpenTrace(client, run % 2 == 0 ? 0 : 4 << 20));
            Send("flushed", 0);
            Flush();
            VERIFY(write(ready[1], "r", 1) == 1);
            for (int i = 1;; ++i)
                Send("load", i);
        }
        char byte = 0;
        VERIFY(read(ready[0], &byte, 1) == 1);
        usleep(static_cast<useconds_t>(random() % 10'000));
        VERIFY(kill(child, SIGKILL) == 0 && waitpid(child, nullptr, 0) == child);
        close(ready[0]), close(ready[1]);
        IsWhole(0);
    }
    VERIFY(Complaints(s_folder.path).empty());
}

/// In the middle of each write in turn: of a packet, of the size of the one before, of a new file.
void IsKilledInAWrite() {
    for (int write = 0; write < 40; ++write) {
        const auto emitAndDie = [write]() -> int {
            Start();
            MetricsTraceClient client;
            VERIFY(OpenTrace(client, 64 << 10)); // so that there are many files
            Send("event", 0);
            Flush();
            s_writesToLive = write;
            for (int i = 1;; ++i) {
                Send("event", i);
                if (i % 100 == 0)
                    Flush();
            }
        };
        VERIFY(RunChild(emitAndDie, std::chrono::seconds(60)).status == -SIGKILL);
        IsWhole(0);
        VERIFY(Complaints(s_folder.path).empty());
    }
}

std::uintmax_t SizeOf(const std::string& folder) {
    std::uintmax_t size = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().filename() != "metadata")
            size += entry.file_size();
    return size;
}

/// The newest that fits in, without a gap, and never more of it. A copy by links is one moment of
/// it.
void KeepsTheNewest() {
    constexpr std::uint64_t kept = 1 << 20;
    const Session session;
    MetricsTraceClient client;
    VERIFY(OpenTrace(client, kept));
    const std::string copy = s_folder.path + "/.copy"; // readers skip it
    std::int64_t last = 0;
    for (int i = 0; i < 50; ++i) {
        for (int n = 0; n < 5000; ++n)
            Send("event", ++last);
        Flush();
        VERIFY(SizeOf(s_folder.path) <= kept);
        if (i % 5 != 4)
            continue;
        std::jthread emitter([](const std::stop_token& isOver) {
            for (; !isOver.stop_requested(); usleep(10))
                Send("meanwhile");
        });
        std::filesystem::create_directory(copy);
        for (const auto& entry : std::filesystem::directory_iterator(s_folder.path))
            if (entry.is_regular_file())
                std::filesystem::create_hard_link(entry.path(), copy / entry.path().filename());
        const Trace trace = ReadTrace(copy);
        std::int64_t next = -1;
        for (const auto& [event, tid, clock, wall] : trace.events)
            if (event.param2.integer != 0) {
                VERIFY(next == -1 || next == event.param2.integer);
                next = event.param2.integer + 1;
            }
        VERIFY(next == last + 1);
        std::filesystem::remove_all(copy);
    }
    VERIFY(client.Close(forever) && !client.GetFirstError());
    const Trace trace = ReadTrace(s_folder.path);
    VERIFY(trace.events.size() * 55 < kept && trace.events.size() * 66 > kept / 4 * 3);
    VERIFY(trace.events.back().event.eventType == MetricsEventType::ContextClosed);
    VERIFY(Complaints(s_folder.path).empty());
}

/// A full disk costs the events of that time, which are counted: by the client and in the trace.
void IsFull(bool inTheEnd) {
    const Session session;
    MetricsTraceClient client;
    VERIFY(OpenTrace(client));
    int expected = 2; // the client's own context
    for (int round = 0; round < 3; ++round) {
        s_diskIsFull = round == 1;
        for (int i = 0; i < 10'000; ++i, expected += s_diskIsFull ? 0 : 1)
            Send("event", i);
        Flush();
        if (inTheEnd && round == 1)
            break;
    }
    VERIFY(client.GetDiscardedEvents() == 10'000 && client.GetFirstError().error == ENOSPC);
    s_diskIsFull = inTheEnd;
    VERIFY(!client.Close(forever) && client.GetFirstError().path == s_folder.path);
    s_diskIsFull = false;
    const Trace trace = ReadTrace(s_folder.path);
    VERIFY(trace.events.size() == std::size_t(expected + (inTheEnd ? 0 : 1)));
    // The client's own context was closed as well.
    VERIFY(trace.discarded == (inTheEnd ? 10'001 : 10'000));
}

/// How many descriptors of the trace this process has; none of them is inherited by others.
int OpenDescriptors() {
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the iterator's own
        const std::string target = std::filesystem::read_symlink(entry.path(), gone);
        if (target.find(s_folder.path) == std::string::npos)
            continue;
        ++found;
        VERIFY(fcntl(std::stoi(entry.path().filename()), F_GETFD) == FD_CLOEXEC);
    }
    return found;
}

/// The disk is full when a new file begins, and another one, while the oldest are to go. No event
/// is there twice, and there is never more than what is kept.
void IsFullWhereAFileBegins(bool inTheEnd) {
    constexpr std::uint64_t kept = 128 << 10;
    const Session session;
    MetricsTraceClient client;
    VERIFY(OpenTrace(client, kept));
    std::int64_t last = 0;
    for (const bool isFull : {false, true, false, true}) {
        s_diskIsFull = isFull;
        for (int i = 0; i < 20; ++i, Flush()) {
            for (int n = 0; n < 500; ++n)
                Send("event", ++last);
            VERIFY(SizeOf(s_folder.path) <= kept);
            VERIFY(OpenDescriptors() <= 2); // the folder and a file
        }
    }
    s_diskIsFull = inTheEnd;
    VERIFY(!client.Close(forever));
    s_diskIsFull = false;
    VERIFY(SizeOf(s_folder.path) <= kept);
    VERIFY(Complaints(s_folder.path).empty());
    std::int64_t before = 0;
    for (const TraceEvent& read : ReadTrace(s_folder.path).events)
        if (read.event.eventType == MetricsEventType::Custom)
            VERIFY(std::exchange(before, read.event.param2.integer) < read.event.param2.integer);
    VERIFY(before > 20'000);
}

/// All that is kept must go for one huge event, and the disk is full just then: what comes until a
/// file begins again is lost, and counted.
void IsFullWhereNothingIsLeft() {
    const Session session;
    MetricsTraceClient client;
    for (const bool inTheEnd : {false, true}) {
        VERIFY(OpenTrace(client, 64 << 10));
        Send("event", 1);
        Flush();
        s_diskIsFull = true;
        for (const char* text : {"huge", "small"}) {
            Send(text == std::string("huge") ? std::string(63'000, 'x') : text);
            Flush();
        }
        VERIFY(client.GetDiscardedEvents() == 2);
        s_diskIsFull = inTheEnd;
        VERIFY(!client.Close(forever) && client.GetFirstError().error == ENOSPC);
        s_diskIsFull = false;
        const Trace trace = ReadTrace(s_folder.path);
        VERIFY(trace.events.size() == (inTheEnd ? 0 : 1));
        VERIFY(client.GetDiscardedEvents() == (inTheEnd ? 3 : 2));
    }
}

/// Files that must be small, written in small steps: all of it is there.
void IsWrittenInSmallStepsAndFiles() {
    rlimit limit{};
    VERIFY(getrlimit(RLIMIT_FSIZE, &limit) == 0);
    const rlimit before = limit;
    limit.rlim_cur = 100'000;
    VERIFY(setrlimit(RLIMIT_FSIZE, &limit) == 0);
    const Session session;
    MetricsTraceClient client;
    s_writesInSteps = true;
    VERIFY(OpenTrace(client));
    for (int i = 1; i <= 10'000; ++i)
        Send("event", i);
    Flush();
    VERIFY(OpenDescriptors() == 2); // the folder and the newest file
    VERIFY(client.Close(forever));
    VERIFY(OpenDescriptors() == 0);
    s_writesInSteps = false;
    VERIFY(setrlimit(RLIMIT_FSIZE, &before) == 0);
    IsWhole(10'000 - 1);
    VERIFY(!client.GetFirstError());
}

/// Files must be smaller than the trace is by the time that it is closed: the host's thread, which
/// does that, is not sent the signal of it.
void ClosesBeyondALimit() {
    const Session session;
    MetricsTraceClient client;
    VERIFY(OpenTrace(client));
    for (int i = 1; i <= 10'000; ++i)
        Send("event", i);
    Flush();
    rlimit limit{};
    VERIFY(getrlimit(RLIMIT_FSIZE, &limit) == 0);
    limit.rlim_cur = 100'000;
    VERIFY(setrlimit(RLIMIT_FSIZE, &limit) == 0);
    Manager().SetBitsAbsolute(0); // there is nothing to write but the file without its padding
    VERIFY(client.Close(forever));
    limit.rlim_cur = limit.rlim_max;
    VERIFY(setrlimit(RLIMIT_FSIZE, &limit) == 0);
    sigset_t pending;
    VERIFY(sigpending(&pending) == 0 && sigismember(&pending, SIGXFSZ) == 0);
    IsWhole(10'000 - 1);
}

/// The end does not wait for the last file's being cut longer than it may, and loses nothing by it.
void IsCutWhileThereIsTime() {
    MetricsEvent event;
    event.param1 = std::string(100'000, 'x');
    for (const std::chrono::seconds time : {std::chrono::seconds(0), std::chrono::seconds(60)}) {
        detail::TraceFile file(s_folder.path, 0);
        for (int i = 0; i < 50; ++i)
            file.Add(event);
        VERIFY(file.CloseUntil(Clock::now() + time) && !file.HasFailed());
        VERIFY((SizeOf(s_folder.path) < (6 << 20)) == (time.count() != 0));
        VERIFY(ReadTrace(s_folder.path).events.size() == 50);
        VERIFY(Complaints(s_folder.path).empty());
    }
}

/// The memory of a huge event is kept no longer than it takes.
void GivesTheMemoryOfAHugeEventBack() {
    const auto residentKiB = [] {
        const std::string status = ReadFile("/proc/self/status");
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    };
    const Session session;
    MetricsTraceClient client;
    VERIFY(OpenTrace(client));
    Send("event");
    Flush();
    const long before = residentKiB();
    Send(std::string(64 << 20, 'x'));
    Flush();
    Send("event");
    Flush();
    VERIFY(residentKiB() < before + (16 << 10));
    VERIFY(client.Close(forever));
}

/// An event that there is no memory for is lost and counted, and nothing else is.
void LosesWhatThereIsNoMemoryFor() {
    MetricsEvent event;
    event.param1 = std::string(256 << 20, 'x');
    detail::TraceFile file(s_folder.path, 0);
    rlimit limit{};
    VERIFY(getrlimit(RLIMIT_AS, &limit) == 0);
    const rlimit before = limit;
    limit.rlim_cur = 300 << 20; // less than another one takes
    VERIFY(setrlimit(RLIMIT_AS, &limit) == 0);
    try {
        file.Add(event);
        VERIFY(false);
    } catch (const std::bad_alloc&) {}
    VERIFY(setrlimit(RLIMIT_AS, &before) == 0);
    VERIFY(file.Discarded() == 1 && file.GetFirstError().error == ENOMEM);
    file.Add(MetricsEvent());
    VERIFY(file.CloseUntil(Clock::now()) && file.Discarded() == 1);
    VERIFY(ReadTrace(s_folder.path).events.size() == 1);
}

/// While another consumer is slow, and the batch without an end, what was delivered reaches the
/// disk.
void IsOnTheDiskBehindASlowConsumer() {
    std::atomic<int> calls{0};
    std::atomic<bool> goesOn{false};
    MetricsTraceClient client;
    const Session session;
    VERIFY(OpenTrace(client) && Consume(false, [&](const MetricsEvent&) {
               usleep(10'000); // so that the packet comes of age
               if (++calls == 40)
                   VERIFY(Poll([&] { return goesOn.load(); }));
           }));
    for (int i = 0; i < 100; ++i)
        Send("event", i);
    VERIFY(Poll([&] { return calls >= 40; }));
    const std::size_t events = ReadTrace(s_folder.path).events.size();
    VERIFY(events >= 16 && events <= 42);
    goesOn = true;
}

/// The child of a fork writes nothing, and holds nothing that the parent needs.
void ForksWhileItIsOpen() {
    const Session session;
    MetricsTraceClient client;
    for (int run = 0; run < 10; ++run) {
        VERIFY(OpenTrace(client));
        int held[2];
        VERIFY(pipe2(held, O_CLOEXEC) == 0);
        for (int i = 0; i < 1000; ++i)
            Send("event", i);
        const pid_t child = fork();
        if (child == 0) {
            char byte = 0;
            close(held[1]);
            Send("child");
            VERIFY(!client.Close(forever) && read(held[0], &byte, 1) == 0); // the parent's end
            _exit(0); // lest it removes the folder
        }
        VERIFY(client.Close(forever) && ReadTrace(s_folder.path).events.size() == 1003);
        VERIFY(OpenTrace(client) && client.Close(forever)); // the child holds no lock
        close(held[1]), close(held[0]);
        int status = -1;
        VERIFY(waitpid(child, &status, 0) == child && status == 0);
        VERIFY(ReadTrace(s_folder.path).events.size() == 3);
    }
}

/// What a folder may be, and what is told when it may not.
void OpensFolders() {
    MetricsTraceClient client;
    std::error_code before = std::make_error_code(std::errc::io_error);
    VERIFY(client.ProcessArgument("-trace=") && !client.Open(before) && !before);
    for (const char* bad : {"-trace", "-trace-keep=", "-trace-keep=x", "-trace-keep=1T",
                            "-trace-keep=-1", "-trace-keep=17179869184G", "-raw=x"})
        VERIFY(!client.ProcessArgument(bad));
    for (const char* good : {"-trace-keep=65536", "-trace-keep=2M", "-trace-keep=0", "-set=act"})
        VERIFY(client.ProcessArgument(good));
    const auto errorOf = [](const std::string& folder) {
        MetricsTraceClient other;
        other.SetOutputFileName(folder);
        try {
            other.Open();
            return 0;
        } catch (const std::runtime_error& error) {
            VERIFY(std::string(error.what()) == "failed to open file");
            const int reason = other.GetFirstError().error;
            std::error_code told;
            VERIFY(!other.Open(told) && told == std::error_code(reason, std::generic_category()));
            return reason;
        }
    };
    VERIFY(client.ProcessArgument("-setabs=mine", [](std::string_view) { return 1ul << 50; }));
    VERIFY(OpenTrace(client)); // not enabled: a trace without events
    VERIFY(Manager().SetBits(0) == 1ul << 50);
    VERIFY(errorOf(s_folder.path) == EWOULDBLOCK);
    client.Close();
    VERIFY(ReadTrace(s_folder.path).events.empty());
    VERIFY(errorOf(s_folder.path + "/missing/folder") == ENOENT);
    VERIFY(errorOf("/dev/null") == ENOTDIR);
    std::ofstream(s_folder.path + "/mine") << "of the user";
    VERIFY(errorOf(s_folder.path) == EEXIST && ReadFile(s_folder.path + "/mine") == "of the user");
    std::filesystem::remove(s_folder.path + "/mine");
    std::filesystem::remove(s_folder.path + "/metadata");
    std::ofstream(s_folder.path + "/events-000000") << "of the user";
    VERIFY(errorOf(s_folder.path) == EEXIST);
    std::filesystem::remove(s_folder.path + "/events-000000");
    std::ofstream(s_folder.path + "/metadata") << "/* CTF 1.8 */ of another tool";
    VERIFY(errorOf(s_folder.path) == EEXIST);
    std::filesystem::remove(s_folder.path + "/metadata");
    VERIFY(errorOf(s_folder.path) == 0 && errorOf(s_folder.path) == 0);
    s_diskIsFull = true;
    VERIFY(errorOf(s_folder.path) == ENOSPC);
    s_diskIsFull = false;
    VERIFY(!std::filesystem::exists(s_folder.path + "/.unfinished"));
    VERIFY(errorOf(s_folder.path) == 0);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<Case> cases{
        {"HoldsEveryField", HoldsEveryField, 60},
        {"DescribesItself", DescribesItself, 60},
        {"HoldsWhatTheCSVFileHolds", HoldsWhatTheCsvFileHolds, 60},
        {"IsKilled", IsKilled, 300},
        {"IsKilledInAWrite", IsKilledInAWrite, 100},
        {"KeepsTheNewest", KeepsTheNewest, 60},
        {"IsFullForAWhile", [] { IsFull(false); }, 60},
        {"IsFullInTheEnd", [] { IsFull(true); }, 60},
        {"IsFullWhereAFileBegins", [] { IsFullWhereAFileBegins(false); }, 60},
        {"IsFullWhereTheLastOneBegins", [] { IsFullWhereAFileBegins(true); }, 60},
        {"IsFullWhereNothingIsLeft", IsFullWhereNothingIsLeft, 60},
        {"IsWrittenInSmallStepsAndFiles", IsWrittenInSmallStepsAndFiles, 60},
        {"IsOnTheDiskBehindASlowConsumer", IsOnTheDiskBehindASlowConsumer, 60},
        {"ForksWhileItIsOpen", ForksWhileItIsOpen, 60},
        {"ClosesBeyondALimit", ClosesBeyondALimit, 60},
        {"IsCutWhileThereIsTime", IsCutWhileThereIsTime, 60},
        {"OpensFolders", OpensFolders, 60}};
    if (sanitizer.empty()) { // whose allocators keep what is freed, and take more than is asked for
        cases.push_back({"GivesTheMemoryOfAHugeEventBack", GivesTheMemoryOfAHugeEventBack, 60});
        cases.push_back({"LosesWhatThereIsNoMemoryFor", LosesWhatThereIsNoMemoryFor, 60});
    }
    return RunCases(argc, argv, cases);
}
