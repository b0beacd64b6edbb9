// The CSV file when the system does not play along.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <sys/stat.h>

#include <stdexcept>

using namespace Metrics;
using namespace Metrics::test;

namespace {

const TemporaryFile s_file;

void Open(MetricsRawClient& client, const std::string& path) {
    client.SetOutputFileName(path);
    VERIFY(client.Open());
}

/// A path that cannot be opened is said so, and leaves the client and the host as they were.
void CannotBeOpened() {
    const std::string folder = s_file.path + ".d";
    VERIFY(mkdir(folder.c_str(), 0555) == 0);
    VERIFY(geteuid() != 0 || seteuid(65534) == 0); // root may write anywhere
    const Session session;
    for (const auto& path : {folder, folder + "/new", folder + "/no/new", std::string(5000, 'x')}) {
        MetricsRawClient client;
        std::string said;
        try {
            Open(client, path);
        } catch (const std::runtime_error& error) {
            said = error.what();
        }
        VERIFY(said == "failed to open file" && Manager().GetCurrentThreadContext() == nullptr);
        Open(client, "/dev/null");
    }
    VERIFY(seteuid(getuid()) == 0 && rmdir(folder.c_str()) == 0);
}

/// A full disk costs the lines and nothing else; a text of any length is one line.
void IsFullOrHasALongLine() {
    const std::string longText(std::size_t(Repetitions(64 << 20)), 'x');
    const Session session;
    MetricsRawClient full;
    MetricsRawClient client;
    Open(full, "/dev/full");
    Open(client, s_file.path);
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
            Open(client, s_file.path);
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

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"cannot be opened", CannotBeOpened},
                     {"is full or has a long line", IsFullOrHasALongLine},
                     {"is killed", IsKilled, 600}});
}
