#include "WordCounter.h"

#include <metrics/Metrics.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* usage =
    "usage: wordcount [-set=LIST | -setabs=LIST] [-clear=LIST] [-raw=FILE]\n"
    "                 [-trace=FOLDER [-trace-keep=SIZE]] [-limit=SIZE [-slow=N]]\n"
    "                 [-then=COMMAND] PATH...\n"
    "Counts the words of files, and of all files in folders.\n"
    "  -raw=FILE         record what happens, and when, in this CSV file\n"
    "  -trace=FOLDER     record it in this folder, for babeltrace2\n"
    "  -trace-keep=SIZE  keep the newest of it, such as 64M, and no more\n"
    "  -limit=SIZE       queue so much and no more, and say at the end what was lost\n"
    "  -slow=N           take N microseconds more for each event, to see what a limit is for\n"
    "  -then=COMMAND     run this at the end, in the same trace: see TRACEPARENT\n"
    "  -set=LIST         record these categories, such as act,parse\n"
    "  -setabs=LIST      record these categories and no others\n"
    "  -clear=LIST       do not record these categories\n";

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What stands behind the option; nothing when it is not this option.
std::optional<std::uint64_t> NumberOf(const std::string& argument, const std::string& option) {
    if (argument.rfind(option, 0) != 0)
        return {};
    const char* const begin = argument.c_str() + option.size();
    char* end = nullptr;
    std::uint64_t number = std::strtoull(begin, &end, 10);
    const std::string unit = end;
    number <<= unit == "K" ? 10 : unit == "M" ? 20 : 0;
    if (end == begin || (!unit.empty() && unit != "K" && unit != "M"))
        throw UsageError("not a number: '" + argument + "'");
    return number;
}

/// A consumer that cannot keep up.
class SlowConsumer final : public Metrics::IMetricsListener {
public:
    explicit SlowConsumer(std::uint64_t microseconds) : m_time(microseconds) {}

    void OnMetricsEvent(const Metrics::MetricsEvent&) override {
        const auto end = std::chrono::steady_clock::now() + m_time;
        while (std::chrono::steady_clock::now() < end) {}
    }

private:
    const std::chrono::microseconds m_time;
};

void PrintLedger(const Metrics::MetricsStatistics& now) {
    std::fprintf(stderr,
                 "wordcount: %" PRIu64 " events = %" PRIu64 " delivered + %" PRIu64
                 " queued + %" PRIu64 " lost to the limit + %" PRIu64 " to memory + %" PRIu64
                 " to exceptions + %" PRIu64 " at the end; at most %" PRIu64 " bytes\n",
                 now.accepted, now.delivered, now.queued, now.lostToLimit, now.lostToMemory,
                 now.lostToException, now.lostToShutdown, now.peakQueuedBytes);
}

/// A bound on what is queued. It goes behind the metrics, and says then what became of all events.
class Bound {
public:
    /// @return false when the argument is something else.
    bool ProcessArgument(const std::string& argument) {
        const auto limit = NumberOf(argument, "-limit=");
        const auto slow = NumberOf(argument, "-slow=");
        m_limit = limit.value_or(m_limit);
        m_slow = slow.value_or(m_slow);
        return limit.has_value() || slow.has_value();
    }

    void Start() {
        Metrics::MetricsManager& manager = *Metrics::MetricsManager::GetInstance();
        manager.SetQueueLimit(m_limit, Metrics::MetricsQueuePolicy::DropNewest);
        m_isSet = m_limit != 0;
        if (m_slow == 0)
            return;
        manager.Enable();
        manager.AddConsumer(korsys::MakeRefCnt<SlowConsumer>(m_slow), Metrics::MetricsBits::all,
                            false);
    }

    ~Bound() {
        try {
            if (m_isSet)
                PrintLedger(Metrics::MetricsManager::GetInstance()->GetStatistics());
        } catch (const std::bad_alloc&) {
            // Then it is not said.
        }
    }

private:
    std::uint64_t m_limit = 0; // bytes
    std::uint64_t m_slow = 0;  // microseconds
    bool m_isSet = false;
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
    Bound bound;
    MetricsSession session;
    std::vector<std::filesystem::path> paths;
    std::string command;
    for (const std::string& argument : arguments) {
        if (argument.rfind("-then=", 0) == 0)
            command = argument.substr(6);
        else if (argument.rfind('-', 0) != 0)
            paths.emplace_back(argument);
        else if (!bound.ProcessArgument(argument))
            session.Configure(argument);
    }
    if (paths.empty())
        throw UsageError("nothing to count");
    try {
        bound.Start();
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
