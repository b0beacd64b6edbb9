#include "Checksums.h"

#include <metrics/Metrics.h>

#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_pipeline.h>
#include <tbb/task_arena.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace fs = std::filesystem;
namespace MetricsBits = Metrics::MetricsBits;
using Metrics::Attribute;
using Metrics::ContextGuard;
using Metrics::Scope;

namespace {

constexpr std::size_t blockSize = 4096;

// [snippet: item]
/// What travels through the pipeline. Its stages may run on different threads, and while a thread
/// waits within one of them, it takes another file.
struct File {
    explicit File(fs::path p) : path(std::move(p)) {}

    fs::path path;
    Metrics::UniqueMetricsContext handle{true, "file"}; // announced when the file is taken up
    std::unique_ptr<Metrics::Context> context;          // open from the second stage to the last
    std::string text;
    std::vector<std::uint64_t> sums; // of the blocks
    int error = 0;
};
// [end]

using FilePtr = std::shared_ptr<File>;

int Read(const fs::path& path, std::string& text) {
    const Scope scope("read", MetricsBits::act);
    const auto close = [](std::FILE* file) { std::fclose(file); };
    const std::unique_ptr<std::FILE, decltype(close)> file(std::fopen(path.c_str(), "rb"), close);
    if (file == nullptr)
        return errno;
    char block[blockSize];
    while (const std::size_t size = std::fread(block, 1, sizeof block, file.get()))
        text.append(block, size);
    return std::ferror(file.get()) != 0 ? errno : 0;
}

/// FNV-1a, of 64 bits.
std::uint64_t SumOf(std::string_view bytes) {
    std::uint64_t sum = 0xcbf29ce484222325;
    for (const char byte : bytes)
        sum = (sum ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    return sum;
}

// [snippet: stages]
/// The parallel stage: reads the file, and sums its blocks up on all threads.
FilePtr ReadAndSum(FilePtr file) {
    file->context = file->handle.Open(); // null when nothing is recorded
    if (file->context != nullptr)
        file->context->DetachFromThread(); // it goes on to another thread
    const ContextGuard guard(file->context.get());

    Attribute("file", file->path.native(), MetricsBits::act);
    file->error = Read(file->path, file->text);
    file->sums.resize((file->text.size() + blockSize - 1) / blockSize);
    const auto opener = std::this_thread::get_id();
    tbb::parallel_for(std::size_t{0}, file->sums.size(), [&file, opener](std::size_t i) {
        // Whichever thread this is, and whatever it waits for.
        const ContextGuard guardOfBlock(file->context.get());
        const Scope scope("block", MetricsBits::comp);
        scope.Emit("of", file->path.native());
        if (std::this_thread::get_id() != opener)
            scope.Emit("on another thread", i);
        file->sums[i] = SumOf(std::string_view(file->text).substr(i * blockSize, blockSize));
    });
    return file;
}

/// The last stage, one file after the other: prints the sum.
bool Print(File& file) {
    const ContextGuard guard(file.context.get());
    const Scope scope("print", MetricsBits::act);
    scope.Emit("of", file.path.native());
    if (file.error != 0) {
        std::fprintf(stderr, "checksums: cannot read '%s': %s\n", file.path.c_str(),
                     std::generic_category().message(file.error).c_str());
        return false;
    }
    const std::uint64_t sum =
        SumOf({reinterpret_cast<const char*>(file.sums.data()), file.sums.size() * 8});
    std::printf("%016" PRIx64 "  %s\n", sum, file.path.c_str());
    return true;
} // the file goes after that, and its context with it
// [end]

} // namespace

int PrintChecksums(const std::vector<fs::path>& files, int threads) {
    Metrics::Context run(0, Metrics::Context::Create(true), "checksums");
    const tbb::global_control limit(tbb::global_control::max_allowed_parallelism,
                                    static_cast<std::size_t>(threads));
    tbb::task_arena arena(threads);

    int unreadable = 0;
    auto next = files.begin();
    // [snippet: pipeline]
    const auto take = [&](tbb::flow_control& control) -> FilePtr {
        const ContextGuard guard(run); // the parent of what the handle announces
        if (next != files.end())
            return std::make_shared<File>(*next++);
        control.stop();
        return nullptr;
    };
    const auto print = [&](const FilePtr& file) { unreadable += Print(*file) ? 0 : 1; };
    arena.execute([&] {
        tbb::parallel_pipeline(
            std::size_t{4} * static_cast<std::size_t>(threads),
            tbb::make_filter<void, FilePtr>(tbb::filter_mode::serial_in_order, take) &
                tbb::make_filter<FilePtr, FilePtr>(tbb::filter_mode::parallel, &ReadAndSum) &
                tbb::make_filter<FilePtr, void>(tbb::filter_mode::serial_in_order, print));
    });
    // [end]
    return unreadable;
}
