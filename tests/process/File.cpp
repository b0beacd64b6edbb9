// The file of the raw client, and what may happen to it: other writers, no reader, no room, no
// time.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>

using namespace Metrics;
using namespace Metrics::test;

namespace {

const std::string header = "timestamp,datetime,context_id,event_type,param1,param2\n";
const TemporaryFile s_file;
const TemporaryFile s_pipe{s_file.path + ".pipe"};
std::function<void()> s_beforeWrite;             // called once, by the next line that is written
std::atomic<std::size_t> s_mostAtOnce{SIZE_MAX}; // bytes that one takes
std::atomic<int> s_interrupted{0};               // so many are, before they have written anything
std::atomic<int> s_closeError{0};                // found by close(2)

} // namespace

// These stand before libc's.
extern "C" {
long syscall(long number, ...) noexcept {
    static const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    va_list list;
    va_start(list, number);
    std::array<long, 3> arguments{}; // as many as those that are used here have at most
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_write) {
        // Something may happen between an open and the write behind it.
        if (const auto before = std::exchange(s_beforeWrite, nullptr))
            before();
        if (s_interrupted > 0) {
            --s_interrupted;
            errno = EINTR;
            return -1;
        }
        arguments[2] = static_cast<long>(
            std::min(static_cast<std::size_t>(arguments[2]), s_mostAtOnce.load()));
    }
    return real(number, arguments[0], arguments[1], arguments[2]);
}
int close(int file) {
    const auto result = static_cast<int>(syscall(SYS_close, file));
    if (s_closeError == 0)
        return result;
    errno = s_closeError;
    return -1;
}
}

namespace {

/// A pipe with a name, and its reading end.
struct Pipe {
    Pipe() {
        unlink(s_pipe.path.c_str());
        VERIFY(mkfifo(s_pipe.path.c_str(), 0600) == 0 && Reopen() >= 0);
    }
    ~Pipe() { close(reader); }
    int Reopen() { return reader = open(s_pipe.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }
    /// All that comes until the last writer closes.
    std::string ReadAll() const {
        VERIFY(fcntl(reader, F_SETFL, 0) == 0);
        std::string text;
        char buffer[4096];
        for (ssize_t n = 0; (n = read(reader, buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<std::size_t>(n));
        return text;
    }
    int reader = -1;
};

/// How many bytes a file may have; beyond them a write raises SIGXFSZ.
void LimitFiles(rlim_t bytes) {
    rlimit limit{};
    VERIFY(getrlimit(RLIMIT_FSIZE, &limit) == 0);
    limit.rlim_cur = bytes;
    VERIFY(setrlimit(RLIMIT_FSIZE, &limit) == 0);
}

bool IsPending(int signal) {
    sigset_t pending;
    VERIFY(sigpending(&pending) == 0);
    return sigismember(&pending, signal) == 1;
}

bool IsBlocked(int signal) {
    sigset_t mask;
    VERIFY(pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0);
    return sigismember(&mask, signal) == 1;
}

/// Whether every line but the header ends as it must, and none is in pieces.
bool AreLines(const std::string& text, const std::string& ends) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line + '\n' != header && (std::count(line.begin(), line.end(), ',') != 5 ||
                                      line.find_first_not_of("0123456789") != line.find(',') ||
                                      line.find(ends) == std::string::npos))
            return std::printf("not a line: '%s'\n", line.c_str()), false;
    return text.empty() || text.back() == '\n';
}

/// The header is written by the host's own thread, whose signals have their default action.
void OpensAPipeWithoutAReader() {
    const bool wasPending = IsPending(SIGPIPE), wasBlocked = IsBlocked(SIGPIPE);
    Pipe pipe;
    MetricsRawClient client;
    s_beforeWrite = [&] { close(std::exchange(pipe.reader, -1)); };
    VERIFY(Open(client, s_pipe.path) && client.GetFirstError().error == EPIPE);
    VERIFY(IsPending(SIGPIPE) == wasPending && IsBlocked(SIGPIPE) == wasBlocked);
    VERIFY(!IsBlocked(SIGXFSZ));
}

/// An open that waits for the pipe's reader, while the host's timers go off.
void OpensAPipeAmongSignals() {
    static std::atomic<int> signals{0};
    struct sigaction action {}; // without SA_RESTART
    action.sa_handler = [](int) { ++signals; };
    VERIFY(sigaction(SIGUSR1, &action, nullptr) == 0);
    Pipe pipe;
    close(std::exchange(pipe.reader, -1));
    std::jthread other([&pipe, opener = pthread_self(), id = gettid()] {
        for (int i = 1; i <= 3; ++i) {
            VERIFY(Poll([&] { return IsAsleep(id); }) && pthread_kill(opener, SIGUSR1) == 0);
            VERIFY(Poll([&] { return signals == i; }));
        }
        VERIFY(Poll([&] { return IsAsleep(id); }) && pipe.Reopen() >= 0);
    });
    MetricsRawClient client;
    VERIFY(Open(client, s_pipe.path));
    other.join();
    client.Close();
    VERIFY(pipe.ReadAll() == header);
}

/// However busy the delivery is.
void BeginsWithTheHeader() {
    const Session session;
    Consume(false, [](const MetricsEvent&) {});
    const std::jthread emitter([](const std::stop_token& isOver) {
        for (int i = 0; !isOver.stop_requested(); ++i)
            i % 1000 == 0 ? Flush() : AttributeImpl(i, 0, MetricsBits::act);
    });
    MetricsRawClient client;
    for (int i = 0; i < Repetitions(200); ++i) {
        VERIFY(Open(client, s_file.path) && client.Close(forever));
        VERIFY(ReadFile(s_file.path).starts_with(header));
    }
}

void OpensWithoutRoom() {
    LimitFiles(0);
    MetricsRawClient client;
    VERIFY(Open(client, s_file.path) && client.GetFirstError().error == EFBIG);
    VERIFY(!IsPending(SIGXFSZ) && !IsBlocked(SIGXFSZ));
}

/// What waited for the host before waits for it still.
void LeavesThePendingSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    VERIFY(pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 && raise(SIGPIPE) == 0);
    OpensAPipeWithoutAReader();
}

/// Several processes on one path, each of which began with its own Open.
void SharesAPath() {
    constexpr int processes = 3;
    int ready[2], go[2];
    VERIFY(pipe2(ready, O_CLOEXEC) == 0 && pipe2(go, O_CLOEXEC) == 0);
    std::array<pid_t, processes> children{};
    for (pid_t& child : children)
        if ((child = fork()) == 0) {
            Start();
            MetricsRawClient client;
            char byte = 0;
            VERIFY(Open(client, s_file.path) && write(ready[1], "r", 1) == 1);
            VERIFY(read(go[0], &byte, 1) == 1);
            for (int i = 0; i < 10'000; ++i)
                Send("line", i, MetricsBits::act);
            VERIFY(client.Close(forever));
            _exit(0);
        }
    char byte = 0;
    for (int i = 0; i < processes; ++i)
        VERIFY(read(ready[0], &byte, 1) == 1);
    VERIFY(write(go[1], "ggg", processes) == processes);
    for (const pid_t child : children) {
        int status = -1;
        VERIFY(waitpid(child, &status, 0) == child && status == 0);
    }
    const std::string text = ReadFile(s_file.path);
    VERIFY(Count(text, ",7,line,") == processes * 10'000 && AreLines(text, ","));
}

/// As log rotation by copying does it.
void IsTruncatedUnderUs() {
    const Session session;
    MetricsRawClient client;
    VERIFY(Open(client, s_file.path));
    for (int i = 0; i < 1000; ++i)
        Send("before", i);
    Flush();
    VERIFY(truncate(s_file.path.c_str(), 0) == 0);
    Send("after", 1);
    VERIFY(client.Close(forever));
    const std::string text = ReadFile(s_file.path);
    VERIFY(Count(text, ",7,after,1\n") == 1 && Count(text, ",7,before,") == 0);
    VERIFY(AreLines(text, ","));
}

/// The host's output goes to a file, and the client writes there as well, by whichever name.
void WritesToStandardOutput(const std::string& path) {
    const int output = open(s_file.path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    const int before = dup(1);
    VERIFY(output >= 0 && dup2(output, 1) == 1 && std::puts("host: begins") > 0);
    std::fflush(stdout);
    MetricsRawClient client;
    Start();
    VERIFY(Open(client, path));
    Send("line", 1);
    Flush();
    std::puts("host: goes on");
    std::fflush(stdout);
    Send("line", 2);
    VERIFY(client.Close(forever));
    std::puts("host: ends");
    std::fflush(stdout);
    VERIFY(dup2(before, 1) == 1);
    const std::string text = ReadFile(s_file.path);
    const std::size_t begin = text.find("host: begins\n" + header), one = text.find(",7,line,1\n"),
                      on = text.find("\nhost: goes on\n"), two = text.find(",7,line,2\n"),
                      end = text.find("\nhost: ends\n");
    VERIFY(begin == 0 && one < on && on < two && two < end && end != std::string::npos);
    VERIFY(text.find('\0') == std::string::npos);
}

/// A consumer that does not return costs the time that was given, and Close says that not all is
/// in the file.
void ClosesWhileAConsumerIsStuck() {
    std::atomic<bool> isStuck{false}, goesOn{false};
    MetricsRawClient client;
    Consume(false, [&](const MetricsEvent&) {
        isStuck = true;
        VERIFY(Poll([&] { return goesOn.load(); }));
    });
    VERIFY(Open(client, s_file.path));
    Send("behind");
    VERIFY(Poll([&] { return isStuck.load(); }));
    const auto start = Clock::now();
    VERIFY(!client.Close(300));
    const double seconds = SecondsSince(start);
    VERIFY(seconds >= 0.3 && seconds < 1.5 && ReadFile(s_file.path) == header);
    goesOn = true;
    MetricsManager::ShutdownAndFreeInstance();
    VERIFY(ReadFile(s_file.path) == header && !client.GetFirstError());
}

/// The reader of a pipe sleeps. The write that is in progress is the last one, and the file is
/// closed behind it.
void ClosesInTheMiddleOfAWrite() {
    Pipe pipe;
    const Session session;
    MetricsRawClient client;
    std::atomic<pid_t> writer{0};
    VERIFY(Consume(false, [&](const MetricsEvent&) { writer = gettid(); }));
    VERIFY(Open(client, s_pipe.path));
    const std::string text(100, 'x');
    for (int i = 0; i < 10'000; ++i) // more than fits in
        Send(text, i);
    VERIFY(Poll([&] {
        return writer != 0 &&
               ReadFile("/proc/self/task/" + std::to_string(writer) + "/syscall").starts_with("1 ");
    }));
    const auto start = Clock::now();
    VERIFY(!client.Close(300));
    const double seconds = SecondsSince(start);
    VERIFY(seconds >= 0.3 && seconds < 1.5);
    const std::string read = pipe.ReadAll(); // to its end: the writer has closed
    const std::size_t lines = Count(read, text);
    VERIFY(read.starts_with(header) && lines > 100 && lines < 9'000);
    VERIFY(AreLines(read.substr(0, read.rfind('\n') + 1), ","));
    Flush(); // the delivery goes on without the file
}

/// A line takes many writes. It is not finished once Close has given up: the write in progress is
/// the last one.
void ClosesInTheMiddleOfALine() {
    std::atomic<bool> isComplete{true};
    const Session session;
    MetricsRawClient client;
    VERIFY(Open(client, s_file.path));
    Flush();
    const std::size_t size = ReadFile(s_file.path).size();
    s_mostAtOnce = 1000;
    s_beforeWrite = [&] { std::thread([&] { isComplete = client.Close(100); }).join(); };
    Send(std::string(10'000, 'x'));
    Flush();
    VERIFY(!isComplete);
    VERIFY(ReadFile(s_file.path).size() == size + 1000);
    s_mostAtOnce = SIZE_MAX;
}

/// A file system that takes a few bytes at a time, and is interrupted at that, gets all of them.
void WritesInSmallSteps() {
    const Session session;
    MetricsRawClient client;
    s_mostAtOnce = 7;
    s_interrupted = 3;
    VERIFY(Open(client, s_file.path));
    Flush();
    s_interrupted = 3;
    Send("in small steps", 1);
    VERIFY(client.Close(forever));
    s_mostAtOnce = SIZE_MAX;
    const std::string text = ReadFile(s_file.path);
    VERIFY(text.starts_with(header) && Count(text, ",7,in small steps,1\n") == 1);
    VERIFY(AreLines(text, ","));
}

/// Some file systems find out when the file is closed. What was found first counts.
void TellsWhatCloseFinds() {
    const Session session;
    MetricsRawClient client;
    for (const auto& [path, error] : {std::pair(s_file.path, EDQUOT), {"/dev/full", ENOSPC}}) {
        VERIFY(Open(client, path));
        Flush();
        s_closeError = EDQUOT;
        VERIFY(!client.Close(forever));
        s_closeError = 0;
        VERIFY(client.GetFirstError().error == error);
    }
    s_closeError = EINTR; // no failure, and the file is closed
    client.SetOutputFileName(s_file.path);
    VERIFY(client.Open() && client.Close(forever));
    s_closeError = 0;
}

/// After a write that failed nothing is added, even when there would be room again: what is in the
/// file is the beginning of what happened, and maybe the beginning of a line.
void WritesNothingBehindAFailure() {
    const Session session;
    MetricsRawClient client;
    VERIFY(Open(client, s_file.path));
    Send("first");
    Flush();
    const std::size_t size = ReadFile(s_file.path).size();
    LimitFiles(size + 10);
    Send("does not fit");
    Flush();
    LimitFiles(RLIM_INFINITY);
    Send("would fit");
    VERIFY(!client.Close(forever));
    const std::string text = ReadFile(s_file.path);
    VERIFY(text.size() == size + 10 && Count(text, "first") == 1 && Count(text, "fit") == 0);
    const MetricsFileError error = client.GetFirstError();
    VERIFY(error.error == EFBIG && error.path == s_file.path);
    VERIFY(client.Open() && !client.GetFirstError() && client.Close(forever));
}

/// The reason for a failure can be asked for until the next Open.
void TellsTheFirstError() {
    MetricsRawClient client;
    VERIFY(!client.GetFirstError() && client.Close(0));
    bool hasThrown = false;
    try {
        Open(client, s_file.path + "/missing");
    } catch (const std::runtime_error&) {
        hasThrown = true;
    }
    VERIFY(hasThrown && client.GetFirstError().error == ENOENT);
    const Session session;
    VERIFY(Open(client, "/dev/full"));
    VERIFY(!client.Close(forever) && client.GetFirstError().error == ENOSPC);
    client.SetOutputFileName(s_file.path);
    VERIFY(client.GetFirstError().path == "/dev/full");
    VERIFY(client.Open() && client.Close(forever) && !client.GetFirstError());
}

/// A thread that is cancelled while it closes has closed before it goes.
void IsCancelledInClose() {
    std::atomic<bool> isStuck{false}, goesOn{false}, hasClosed{false};
    const Session session;
    VERIFY(Consume(false, [&](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Custom) {
            isStuck = true;
            VERIFY(Poll([&] { return goesOn.load(); }));
        }
    }));
    std::atomic<pid_t> id{0};
    std::thread thread([&] {
        MetricsRawClient client;
        VERIFY(Open(client, s_file.path));
        Send("waits");
        VERIFY(Poll([&] { return isStuck.load(); }));
        id = gettid();
        VERIFY(client.Close(forever));
        hasClosed = true;
        for (;;)
            pause(); // where the request acts
    });
    VERIFY(Poll([&] { return id != 0 && IsAsleep(id); }));
    VERIFY(pthread_cancel(thread.native_handle()) == 0);
    goesOn = true;
    thread.join();
    VERIFY(hasClosed && Count(ReadFile(s_file.path), ",7,waits,") == 1);
}

/// Programs that the host starts do not get the file, also when it is the one that the host's own
/// output goes to: they get that alone.
void IsNotInherited() {
    const Session session;
    MetricsRawClient client;
    VERIFY(Open(client, s_file.path));
    const std::string path = std::filesystem::canonical(s_file.path);
    const auto inherited = [&path] {
        const std::string command =
            "ls -l /proc/self/fd | grep -c '" + path + "' >" + path + ".found";
        VERIFY(std::system(command.c_str()) >= 0);
        const int found = std::stoi(ReadFile(path + ".found"));
        unlink((path + ".found").c_str());
        return found;
    };
    VERIFY(inherited() == 0);
    VERIFY(client.Close(forever));

    const int output = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const int before = fcntl(2, F_DUPFD_CLOEXEC, 0);
    VERIFY(output >= 0 && before >= 0 && dup2(output, 2) == 2);
    VERIFY(client.Open());
    const int found = inherited();
    VERIFY(dup2(before, 2) == 2);
    VERIFY(found == 1);
}

/// Close says that not all is in the file: the delivery has not got there in time, or it ended
/// before.
void ClosesWithoutAllThatWasEmitted() {
    std::atomic<bool> goesOn{false}, isComplete{true};
    std::atomic<pid_t> closing{0};
    Manager().SetThreadInitFunction([&] { VERIFY(Poll([&] { return goesOn.load(); })); });
    const Session session;
    MetricsRawClient early, late;
    VERIFY(Open(early, "/dev/null") && Open(late, s_file.path));
    Send("waits");
    VERIFY(!early.Close(50));
    Send("end", 0, 0, MetricsEventType::Shutdown);
    Send("behind");
    std::thread thread([&] {
        closing = gettid();
        isComplete = late.Close(forever);
    });
    VERIFY(Poll([&] { return closing != 0 && IsAsleep(closing); }));
    goesOn = true;
    thread.join();
    VERIFY(!isComplete);
    const std::string text = ReadFile(s_file.path);
    VERIFY(Count(text, ",7,waits,") == 1 && Count(text, "behind") == 0);
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"OpensAPipeWithoutAReader", OpensAPipeWithoutAReader, 20},
                     {"OpensAPipeAmongSignals", OpensAPipeAmongSignals, 20},
                     {"BeginsWithTheHeader", BeginsWithTheHeader, 60},
                     {"OpensWithoutRoom", OpensWithoutRoom, 20},
                     {"LeavesThePendingSignal", LeavesThePendingSignal, 20},
                     {"SharesAPath", SharesAPath, 20},
                     {"IsTruncatedUnderUs", IsTruncatedUnderUs, 20},
                     {"WritesToStandardOutput", [] { WritesToStandardOutput("/dev/stdout"); }, 20},
                     {"WritesWhereStdoutGoes", [] { WritesToStandardOutput(s_file.path); }, 20},
                     {"ClosesWhileAConsumerIsStuck", ClosesWhileAConsumerIsStuck, 20},
                     {"ClosesInTheMiddleOfAWrite", ClosesInTheMiddleOfAWrite, 20},
                     {"ClosesInTheMiddleOfALine", ClosesInTheMiddleOfALine, 20},
                     {"WritesInSmallSteps", WritesInSmallSteps, 20},
                     {"WritesNothingBehindAFailure", WritesNothingBehindAFailure, 20},
                     {"TellsWhatCloseFinds", TellsWhatCloseFinds, 20},
                     {"TellsTheFirstError", TellsTheFirstError, 20},
                     {"IsCancelledInClose", IsCancelledInClose, 20},
                     {"ClosesWithoutAllThatWasEmitted", ClosesWithoutAllThatWasEmitted, 20},
                     {"IsNotInherited", IsNotInherited, 20}});
}
