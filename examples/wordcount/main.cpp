#include "WordCounter.h"

#include <metrics/Metrics.h>

#include <cinttypes>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* usage =
    "usage: wordcount [-set=LIST | -setabs=LIST] [-clear=LIST] [-raw=FILE]\n"
    "                 [-trace=FOLDER [-trace-keep=SIZE]] [-then=COMMAND] PATH...\n"
    "Counts the words of files, and of all files in folders.\n"
    "  -raw=FILE         record what happens, and when, in this CSV file\n"
    "  -trace=FOLDER     record it in this folder, for babeltrace2\n"
    "  -trace-keep=SIZE  keep the newest of it, such as 64M, and no more\n"
    "  -then=COMMAND     run this at the end, in the same trace: see TRACEPARENT\n"
    "  -set=LIST         record these categories, such as act,parse\n"
    "  -setabs=LIST      record these categories and no others\n"
    "  -clear=LIST       do not record these categories\n";

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The metrics of this process: on from Start, off when it goes, whichever way that comes about.
class MetricsSession {
public:
    // [snippet: setup]
    void Configure(const std::string& argument) {
        const bool isForFile = m_file.ProcessArgument(argument);
        const bool isForTrace = m_trace.ProcessArgument(argument);
        if (!isForFile && !isForTrace)
            throw UsageError("unknown option '" + argument + "'");
        if (!isForFile || !isForTrace)
            return; // a path or a size
        // The clients skip categories that they do not know; a slip of the pen should not pass.
        const std::string list = argument.substr(argument.find('=') + 1);
        const std::string unknown = Metrics::MetricsBitsUtils::ValidateMnemonicList(list);
        if (!unknown.empty())
            throw UsageError("unknown categories '" + unknown + "' in '" + argument + "'");
    }

    void Start() {
        Metrics::MetricsManager::GetInstance()->Enable(); // before Open, which registers a consumer
        m_file.Open();  // without -raw= it returns false, and records nothing
        m_trace.Open(); // without -trace= the same
    }
    // [end]

    // [snippet: shutdown]
    ~MetricsSession() {
        m_trace.Close(); // waits until everything is in the folder, for five seconds at most
        m_file.Close();  // the same for the file
        Metrics::MetricsManager::ShutdownAndFreeInstance();
    }
    // [end]

private:
    Metrics::MetricsRawClient m_file;
    Metrics::MetricsTraceClient m_trace;
};

int Run(const std::vector<std::string>& arguments) {
    MetricsSession session;
    std::vector<std::filesystem::path> paths;
    std::string command;
    for (const std::string& argument : arguments) {
        if (argument.rfind("-then=", 0) == 0)
            command = argument.substr(6);
        else if (argument.rfind('-', 0) == 0)
            session.Configure(argument);
        else
            paths.emplace_back(argument);
    }
    if (paths.empty())
        throw UsageError("nothing to count");
    try {
        session.Start();
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(std::string("cannot record: ") + error.what());
    }

    const Totals totals = CountWords(paths, command);
    std::printf("%" PRIu64 " files, %" PRIu64 " lines, %" PRIu64 " words, %" PRIu64 " bytes\n",
                totals.files, totals.lines, totals.words, totals.bytes);
    if (std::fflush(stdout) != 0)
        throw std::runtime_error("cannot write the totals");
    return totals.isComplete ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run({argv + 1, argv + argc});
    } catch (const UsageError& error) {
        std::fprintf(stderr, "wordcount: %s\n%s", error.what(), usage);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "wordcount: %s\n", error.what());
        return 1;
    }
}
