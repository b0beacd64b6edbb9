#include "Bench.h"

#include <fcntl.h>
#include <unistd.h>

#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;
using Metrics::Context;

namespace Bits = Metrics::MetricsBits;

constexpr Size sustained{1, 2'000'000};
constexpr Size csvLines{1, 20'000};
constexpr const char* csvFile = "bench.csv";

/// The two clock reads that every accepted event needs.
void ClockReads(State& state, Size size) {
    RunCalls(state, size, [](std::int64_t) {
        std::uint64_t seconds = 0;
        std::uint32_t microseconds = 0;
        DoNotOptimize(Metrics::AppUpTime());
        Metrics::CurrentUnixTime(&seconds, &microseconds);
        DoNotOptimize(seconds);
        DoNotOptimize(microseconds);
    });
}

/// A call whose category is off, in a thread that has a context.
template <class Call>
void Filtered(State& state, Call call) {
    Context context(0, Context::Create(true));
    if (Metrics::TestBits(Bits::net))
        state.SkipWithError("the category is on");
    RunCalls(state, figureSize, call);
}

using Counting = Registered<CountingConsumer>;

/// The call alone, on the emitting threads; one consumer gets the events.
template <class Consumer = Counting, class Call>
void Accepted(State& state, Size size, Call call) {
    std::optional<Consumer> consumer;
    if (state.thread_index() == 0)
        consumer.emplace();
    Context context(0, Context::Create(true));
    RunCalls(
        state, size, [&](std::int64_t i) { call(context, i); }, Flush);
}

constexpr auto emit = [](Context& context, std::int64_t i) { context.Emit(i, 0.5); };

void EmitCold(State& state) {
    const Counting consumer;
    Context context(0, Context::Create(true));
    RunCold(state, [&](std::int64_t i) { emit(context, i); });
}

void EmitMany(std::size_t count) {
    Context context(0, Context::Create(true));
    for (std::size_t i = 0; i < count; ++i)
        emit(context, static_cast<std::int64_t>(i));
}

/// Threads of two cores emit so many events in all; reported is the time divided by their number.
void Ladder(State& state, int threads) {
    constexpr std::size_t events = 1'600'000;
    const Counting consumer;
    std::vector<double> times;
    const auto burst = [&] {
        const double seconds = OnNewThreads(threads, [&] {
                                   EmitMany(events / static_cast<std::size_t>(threads));
                               }).all;
        Flush();
        return seconds;
    };
    burst(); // not timed
    for (auto _ : state) {
        times.push_back(burst());
        state.SetIterationTime(times.back());
    }
    Report(state, std::move(times), events);
}

void EmitFresh(State& state, int threads) {
    const Counting consumer;
    RunFresh(state, threads, [] { EmitMany(freshCalls); });
    Flush();
}

/// From the first emit until the consumer has seen all.
void Sustained(State& state) {
    const Counting consumer;
    Context context(0, Context::Create(true));
    RunBursts(state, sustained, [&] {
        const std::uint64_t expected = consumer->Count() + sustained.calls;
        for (std::size_t i = 0; i < sustained.calls; ++i)
            context.Emit(i, 0.5);
        Flush();
        if (consumer->Count() < expected)
            state.SkipWithError("events are missing");
    });
}

/// The delivery of events that are all queued before: rendering and writing, without the emits.
void CsvClient(State& state) {
    std::optional<Registered<Gate>> gate; // holds them back until then
    Metrics::MetricsRawClient client;
    client.SetBits("act", true);
    client.SetOutputFileName(csvFile);
    const auto deliver = [&] {
        (*gate)->Open();
        gate.reset();
        Flush();
    };
    const auto queueLines = [&] {
        gate.emplace();
        client.Open(); // a new file
        Context context(0, Context::Create(true));
        (*gate)->Shut(context);
        for (std::size_t i = 0; i < csvLines.calls; ++i)
            context.Emit(i, 0.5);
    };
    RunBursts(state, csvLines, deliver, Nothing{}, queueLines);
}

/// What the client writes.
std::string ClientLines() {
    Metrics::MetricsRawClient client;
    client.SetBits("act", true);
    client.SetOutputFileName(csvFile);
    client.Open();
    Context context(0, Context::Create(true));
    for (std::size_t i = 0; i < csvLines.calls; ++i)
        context.Emit(i, 0.5);
    client.Close();
    std::ifstream file(csvFile);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The client's lines, each with one write(2), into a new file.
void CsvWrite(State& state) {
    static const std::string content = ClientLines();
    std::vector<std::string_view> lines;
    for (std::string_view rest = content; !rest.empty(); rest.remove_prefix(lines.back().size()))
        lines.push_back(rest.substr(0, rest.find('\n') + 1));
    if (lines.size() < csvLines.calls)
        return state.SkipWithError("lines are missing");
    lines.resize(csvLines.calls);
    int file = -1;
    const auto writeLines = [&] {
        for (const std::string_view line : lines)
            if (write(file, line.data(), line.size()) < 0)
                state.SkipWithError("write failed");
    };
    const auto openFile = [&] {
        file = open(csvFile, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
    };
    RunBursts(
        state, csvLines, writeLines, [&] { close(file); }, openFile);
}

} // namespace

void RegisterFigures() {
    Register("figure/csv-client", 1, 11, CsvClient);
    Register("figure/csv-write", 1, 11, CsvWrite);
    Register("figure/sustained", 1, 3, Sustained);
    Register("figure/clock-reads", 2, 7, [](State& state) { ClockReads(state, figureSize); });
    Register("figure/single-clock-reads", 1, 7, [](State& s) { ClockReads(s, singleCalls); });
    Register("figure/clock-read", 1, 7, [](State& state) {
        RunCalls(state, figureSize, [](std::int64_t) { DoNotOptimize(Metrics::AppUpTime()); });
    });
    Register("figure/emit", 2, 7, [](State& state) { Accepted(state, figureSize, emit); });
    Register("figure/single-emit", 2, 7, [](State& state) { Accepted(state, singleCalls, emit); });
    Register("figure/emit-to-nobody", 1, 7,
             [](State& state) { Accepted<Nothing>(state, figureSize, emit); });
    Register("figure/emit-synchronous", 2, 7, [](State& state) {
        Accepted<Registered<EmptyConsumer, true>>(state, figureSize, emit);
    });
    Register("figure/attribute-texts", 1, 7, [](State& state) {
        Accepted(state, figureSize, [](Context&, std::int64_t) {
            Metrics::Attribute("name", "some value", Bits::act);
        });
    });
    Register("figure/scope", 1, 7, [](State& state) {
        Accepted(state, figureSize,
                 [](Context&, std::int64_t) { Metrics::Scope scope("label", Bits::act); });
    });
    Register("figure/cold-emit", 1, 2, EmitCold);
    for (const int threads : {1, 2})
        Register("figure/fresh-emit-" + std::to_string(threads), 1, 1,
                 [threads](State& state) { EmitFresh(state, threads); });
    for (const int threads : {1, 2, 4, 8})
        Register("figure/ladder-" + std::to_string(threads), 1, 3,
                 [threads](State& state) { Ladder(state, threads); });
    Register("figure/filtered-attribute", 1, 7, [](State& state) {
        Filtered(state, [](std::int64_t i) { Metrics::Attribute("name", i, Bits::net); });
    });
    Register("figure/filtered-scope", 1, 7, [](State& state) {
        Filtered(state, [](std::int64_t) { Metrics::Scope scope("label", Bits::net); });
    });
}

} // namespace bench
