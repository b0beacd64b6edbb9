#include "Bench.h"

#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>

namespace bench {

namespace {

using benchmark::State;

/// A logger that blocks on overflow, with room for the bursts of two threads, so that it never
/// does. Its writing thread empties the queue between the bursts.
struct Peer {
    std::shared_ptr<spdlog::details::thread_pool> pool;
    std::shared_ptr<spdlog::logger> logger;

    explicit Peer(const spdlog::sink_ptr& sink)
        : pool(std::make_shared<spdlog::details::thread_pool>(
              2 * figureSize.blocks * figureSize.calls, 1)),
          logger(std::make_shared<spdlog::async_logger>("bench", sink, pool,
                                                        spdlog::async_overflow_policy::block)) {}

    /// The call alone, on the emitting threads.
    void Run(State& state, Size size = figureSize) {
        RunCalls(
            state, size, [&](std::int64_t i) { logger->info("{} {}", i, 0.5); },
            [&] {
                while (pool->queue_size() != 0)
                    std::this_thread::yield();
            });
    }
};

} // namespace

/// To the null sink the writing thread has least to do, and so falls asleep and has to be woken
/// most often; to a file it formats and writes. The report compares with the faster of the two.
void RegisterSpdlog() {
    const std::string path = std::filesystem::temp_directory_path() / "metrics-bench-spdlog.log";
    static Peer toNull(std::make_shared<spdlog::sinks::null_sink_mt>());
    static Peer toFile(std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true));
    Register("figure/spdlog-null", 2, 7, [](State& state) { toNull.Run(state); });
    Register("figure/spdlog-file", 2, 7, [](State& state) { toFile.Run(state); });
    Register("figure/single-spdlog", 2, 7, [](State& s) { toNull.Run(s, singleCalls); });
    Register("figure/spdlog-disabled", 1, 7, [](State& state) {
        RunCalls(state, figureSize, [](std::int64_t i) { toNull.logger->debug("{} {}", i, 0.5); });
    });
}

} // namespace bench
