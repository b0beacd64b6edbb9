// A program with a thread pool and options of its own, and all that it does for its metrics.

#include <metrics/Metrics.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

// NOLINTBEGIN(concurrency-mt-unsafe): read before there is a second thread
// [snippet: recording]
// [snippet: own]
constexpr std::uint64_t billing = std::uint64_t{1} << 50; // a category of this program

std::uint64_t OwnBits(std::string_view mnemonic) {
    return mnemonic == "billing" ? billing : 0;
}
// [end]

/// The metrics of this process: on from Start, off when it goes. The first object in main.
class Recording {
public:
    /// Takes an option of the program's: behind "--metrics" those of the library stand unchanged.
    bool TakeOption(const std::string& option) {
        constexpr std::string_view prefix = "--metrics";
        return option.rfind(prefix, 0) == 0 && Take(option.substr(prefix.size()));
    }

    void Start() {
        // For whoever cannot reach the command line: APP_METRICS="-set=act -raw=/tmp/app.csv"
        if (const char* const variable = std::getenv("APP_METRICS")) {
            std::istringstream words(variable);
            for (std::string word; words >> word;)
                if (!Take(word))
                    std::fprintf(stderr, "app: APP_METRICS: ignored: %s\n", word.c_str());
        }
        if (!m_isWanted)
            return; // without Enable there is no thread, and nothing is recorded
        std::error_code error;
        if (Metrics::MetricsManager::GetInstance()->Enable(error))
            m_client.Open(error);
        if (error)
            std::fprintf(stderr, "app: not recorded: %s\n", error.message().c_str());
    }

    ~Recording() {
        m_client.Close();
        Metrics::MetricsManager::ShutdownAndFreeInstance();
    }

private:
    bool Take(const std::string& argument) {
        const bool isKnown = m_client.ProcessArgument(argument, OwnBits);
        m_isWanted = m_isWanted || isKnown;
        return isKnown;
    }

    Metrics::MetricsRawClient m_client;
    bool m_isWanted = false;
};
// [end]
// NOLINTEND(concurrency-mt-unsafe)

class Pool {
public:
    Pool() {
        for (int i = 0; i < 2; ++i)
            m_threads.emplace_back([this] { Work(); });
    }
    ~Pool() {
        Push(nullptr);
        for (std::thread& thread : m_threads)
            thread.join();
    }

    // [snippet: post]
    /// Where the pool takes its jobs, once for all of them: each gets a context of its own, a child
    /// of the one that is current here.
    template <class Job>
    void Post(const char* name, Job job) {
        auto child = std::make_shared<const Metrics::UniqueMetricsContext>(true, name);
        Push([child = std::move(child), job = std::move(job)] {
            const auto context = child->Open(); // current until the job has ended
            job();
        });
    }
    // [end]

private:
    void Push(std::function<void()> job) {
        const std::lock_guard lock(m_mutex);
        m_jobs.push(std::move(job));
        m_isFilled.notify_all();
    }

    void Work() {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock lock(m_mutex);
                m_isFilled.wait(lock, [this] { return !m_jobs.empty(); });
                if (m_jobs.front() == nullptr)
                    return; // and leaves it for the others
                job = std::move(m_jobs.front());
                m_jobs.pop();
            }
            job();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_isFilled;
    std::queue<std::function<void()>> m_jobs;
    std::vector<std::thread> m_threads;
};

} // namespace

// [snippet: main]
int main(int argc, char** argv) {
    Recording recording;
    for (int i = 1; i < argc; ++i)
        if (!recording.TakeOption(argv[i])) {
            std::fprintf(stderr, "app: unknown option %s\n", argv[i]);
            return 2;
        }
    recording.Start();

    Metrics::Context run(0, Metrics::Context::Create(true), "run");
    Pool pool; // waits for its jobs in the end, before the context closes
    for (const int amount : {5, 7})
        pool.Post("bill", [amount] {
            const Metrics::Scope scope("add up", billing);
            scope.Emit("amount", amount);
        });
}
// [end]
