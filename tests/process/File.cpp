// The CSV file when the system does not play along.

#include "../support/Process.h"
#include "Exercise.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <stdexcept>

using namespace Metrics;
using namespace Metrics::test;

namespace {

/// A path that cannot be opened is said so, and leaves the client and the host as they were.
void CannotBeOpened() {
    const TemporaryFile file;
    const std::string folder = file.path + ".d";
    const std::string readOnly = folder + "/file";
    VERIFY(mkdir(folder.c_str(), 0555) == 0);
    VERIFY(geteuid() != 0 || seteuid(65534) == 0); // root may write anywhere
    const Session session;
    for (const std::string& path :
         {folder, readOnly, folder + "/missing/file", std::string(5000, 'x')}) {
        MetricsRawClient client;
        client.SetOutputFileName(path);
        try {
            client.Open();
            VERIFY(!"opened");
        } catch (const std::runtime_error& error) {
            VERIFY(error.what() == std::string("failed to open file"));
        }
        VERIFY(Manager().GetCurrentThreadContext() == nullptr);
        client.SetOutputFileName("/dev/null");
        VERIFY(client.Open());
    }
    VERIFY(seteuid(getuid()) == 0 && rmdir(folder.c_str()) == 0);
}

/// A full disk costs the lines, and nothing else.
void IsFull() {
    int delivered = 0;
    const Session session;
    MetricsRawClient client;
    client.SetOutputFileName("/dev/full");
    VERIFY(client.Open());
    VERIFY(Manager().AddConsumer(MakeListener([&](const MetricsEvent& event) {
                                     delivered += event.eventType == MetricsEventType::Custom;
                                 }),
                                 ~0ull, false));
    for (int i = 0; i < 1000; ++i)
        EmitOne(i);
    client.Close();
    VERIFY(delivered == 1000);
}

/// What a flush has delivered survives the sudden end of the process, in complete lines.
void IsKilled() {
    const TemporaryFile file;
    for (int run = 0; run < Repetitions(20); ++run) {
        const Ended ended = RunChild(
            [&file]() -> int {
                Start();
                MetricsRawClient client;
                client.SetOutputFileName(file.path);
                VERIFY(client.Open());
                std::thread([] {
                    for (;;)
                        EmitOne("meanwhile");
                }).detach();
                for (int i = 0; i < 1000; ++i)
                    EmitOne("before", i);
                Manager().WaitUntilWritesFlushed(20000);
                return raise(SIGKILL);
            },
            std::chrono::seconds(60));
        VERIFY(ended.status == -SIGKILL);
        const std::string text = ReadFile(file.path);
        for (int i = 0; i < 1000; ++i)
            VERIFY(text.find(",7,before," + std::to_string(i) + '\n') != std::string::npos);
    }
}

/// A text of any length is one line.
void HasALongLine() {
    const TemporaryFile file;
    const std::string longText(64u << 20, 'x');
    const Session session;
    MetricsRawClient client;
    client.SetOutputFileName(file.path);
    VERIFY(client.Open());
    EmitOne(longText);
    EmitOne("next");
    client.Close();
    const std::string text = ReadFile(file.path);
    VERIFY(text.find(",7," + longText + ",0\n") != std::string::npos);
    VERIFY(Count(text, "\n") == 6 && text.find(",7,next,0\n") != std::string::npos);
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"cannot be opened", CannotBeOpened},
                     {"is full", IsFull},
                     {"is killed", IsKilled, 600},
                     {"has a long line", HasALongLine}});
}
