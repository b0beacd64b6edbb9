#include "WordCounter.h"

#include <metrics/Metrics.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include <unistd.h>

namespace fs = std::filesystem;
namespace MetricsBits = Metrics::MetricsBits;
using Metrics::Attribute;
using Metrics::Scope;

namespace {

/// What goes to stderr: problems always, and on a terminal one line that is rewritten in place.
///
/// Thread-safety: safe from any thread at any time.
class Progress {
public:
    ~Progress() { ClearLine(); }

    void FileDone(std::size_t expected) {
        const std::lock_guard lock(m_mutex);
        ++m_done;
        const auto now = std::chrono::steady_clock::now();
        if (!m_onTerminal || now < m_nextLine)
            return;
        m_nextLine = now + std::chrono::milliseconds(100);
        m_lineShown = std::fprintf(stderr, "\rcounting: %zu of %zu files", m_done, expected) > 0;
    }

    void CannotRead(const fs::path& path, const std::error_code& error) {
        const std::lock_guard lock(m_mutex);
        ClearLine();
        std::fprintf(stderr, "wordcount: cannot read '%s': %s\n", path.c_str(),
                     error.message().c_str());
        ++m_problems;
    }

    std::size_t Problems() const { return m_problems; }

private:
    void ClearLine() {
        if (m_lineShown)
            std::fputs("\r\033[K", stderr);
        m_lineShown = false;
    }

    const bool m_onTerminal = isatty(STDERR_FILENO) == 1;
    std::mutex m_mutex;
    std::chrono::steady_clock::time_point m_nextLine;
    std::size_t m_done = 0;
    std::atomic<std::size_t> m_problems = 0;
    bool m_lineShown = false;
};

/// One file to count. Its context is announced here, on the main thread, and opened by the worker
/// that takes the file: the time between the two is how long the file had to wait.
struct Job {
    fs::path file;
    Metrics::UniqueMetricsContext context{true, "file"};
};

void FindFiles(const fs::path& path, bool isNamed, std::vector<Job>& jobs, Progress& progress) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (isNamed ? !fs::exists(status) : !fs::status_known(status)) {
        progress.CannotRead(path, error);
    } else if (fs::is_directory(status)) {
        // Links to folders are followed where they are named only, so that no walk goes in circles.
        if (!isNamed && fs::is_symlink(fs::symlink_status(path)))
            return;
        for (fs::directory_iterator entry(path, error), end; entry != end; entry.increment(error))
            FindFiles(entry->path(), false, jobs, progress);
        if (error)
            progress.CannotRead(path, error);
    } else if (isNamed || fs::is_regular_file(status)) {
        jobs.push_back({path});
    }
}

Totals& operator+=(Totals& sum, const Totals& other) {
    sum.files += other.files;
    sum.lines += other.lines;
    sum.words += other.words;
    sum.bytes += other.bytes;
    return sum;
}

std::string Read(const fs::path& path) {
    const Scope scope("read", MetricsBits::act);
    const auto close = [](std::FILE* file) { std::fclose(file); };
    const std::unique_ptr<std::FILE, decltype(close)> file(std::fopen(path.c_str(), "rb"), close);
    if (file == nullptr)
        throw std::system_error(errno, std::generic_category());
    std::string text;
    std::array<char, 65536> block;
    while (const std::size_t size = std::fread(block.data(), 1, block.size(), file.get()))
        text.append(block.data(), size);
    if (std::ferror(file.get()) != 0)
        throw std::system_error(errno, std::generic_category());
    return text;
}

Totals Count(std::string_view text) {
    const Scope scope("count", MetricsBits::parse);
    Totals totals;
    totals.files = 1;
    totals.bytes = text.size();
    bool inWord = false;
    for (const char c : text) {
        const bool isSpace = std::isspace(static_cast<unsigned char>(c)) != 0;
        totals.words += !isSpace && !inWord ? 1 : 0;
        totals.lines += c == '\n' ? 1 : 0;
        inWord = !isSpace;
    }
    scope.Emit("words", totals.words);
    return totals;
}

/// Runs on a worker thread.
Totals CountFile(Job& job, Progress& progress) {
    const std::unique_ptr<Metrics::Context> context = job.context.Open();
    Attribute("file", job.file.native(), MetricsBits::act);
    try {
        const std::string text = Read(job.file);
        Attribute("bytes", text.size(), MetricsBits::act);
        return Count(text);
    } catch (const std::system_error& failure) {
        if (context != nullptr)
            context->Emit("unreadable", failure.code().value());
        progress.CannotRead(job.file, failure.code());
        return {};
    }
} // the context closes, on the thread that opened it

// NOLINTBEGIN(concurrency-mt-unsafe): the environment changes before there is a second thread
// [snippet: traceparent]
std::string RandomId() {
    std::random_device random;
    std::array<char, 17> digits;
    std::snprintf(digits.data(), digits.size(), "%08x%08x", random() | 1U, random());
    return digits.data();
}

/// Joins the trace of whoever started this process, and hands it on to those that it starts.
void JoinTrace() {
    const char* const variable = std::getenv("TRACEPARENT");
    const std::string given = variable == nullptr ? "" : variable;
    if (!given.empty())
        // [snippet: in]
        Attribute("traceparent", given, MetricsBits::act);
    // [end]
    const std::string trace = given.size() < 55 ? RandomId() + RandomId() : given.substr(3, 32);
    const std::string sent = "00-" + trace + "-" + RandomId() + "-01";
    Attribute("traceparent.sent", sent, MetricsBits::act);
    setenv("TRACEPARENT", sent.c_str(), 1);
}
// [end]
// NOLINTEND(concurrency-mt-unsafe)

} // namespace

Totals CountWords(const std::vector<fs::path>& paths, const std::string& command) {
    const Metrics::Context run(0, Metrics::Context::Create(true), "wordcount");
    JoinTrace();

    Progress progress;
    std::vector<Job> jobs;
    {
        const Scope scope("find files", MetricsBits::act);
        for (const fs::path& path : paths)
            FindFiles(path, true, jobs, progress);
        scope.Emit("files", jobs.size());
    }

    std::atomic<std::size_t> next = 0;
    const auto work = [&jobs, &next, &progress] {
        Totals totals;
        for (std::size_t i = next++; i < jobs.size(); i = next++) {
            totals += CountFile(jobs[i], progress);
            progress.FileDone(jobs.size());
        }
        return totals;
    };
    // A future waits for its thread when it goes, so no worker outlives what it works on.
    std::vector<std::future<Totals>> workers;
    const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
    for (std::size_t i = 0; i < std::min(processors, jobs.size()); ++i)
        workers.push_back(std::async(std::launch::async, work));

    Totals totals;
    {
        const Scope scope("wait for workers", MetricsBits::act);
        for (std::future<Totals>& worker : workers)
            totals += worker.get();
    }
    totals.isComplete = progress.Problems() == 0;
    if (!command.empty()) {
        const Scope scope("command", MetricsBits::act);
        // The workers have ended. NOLINTNEXTLINE(concurrency-mt-unsafe)
        totals.isComplete = std::system(command.c_str()) == 0 && totals.isComplete;
    }
    return totals;
}
