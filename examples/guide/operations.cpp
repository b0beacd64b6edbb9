// What an application does for those who operate it: a bound, a log of faults, figures for
// Prometheus, and a last report.

#include <metrics/Metrics.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

using Metrics::MetricsError;

namespace {

// [snippet: publish]
/// In the text exposition format: for the node exporter's textfile collector, or a handler of HTTP.
std::string Exposition(const Metrics::MetricsStatistics& now) {
    std::string text;
    const auto add = [&text](const std::string& series, std::uint64_t value) {
        text += "metrics_" + series + ' ' + std::to_string(value) + '\n';
    };
    add("accepted_total", now.accepted);
    add("delivered_total", now.delivered);
    add("lost_total{reason=\"limit\"}", now.lostToLimit);
    add("lost_total{reason=\"memory\"}", now.lostToMemory);
    add("lost_total{reason=\"exception\"}", now.lostToException);
    add("lost_total{reason=\"shutdown\"}", now.lostToShutdown);
    add("queued_bytes", now.queuedBytes);
    add("oldest_nanoseconds", now.oldestNanoseconds);
    for (const auto& consumer : now.consumers) {
        const std::string label = "{consumer=\"" + consumer.name + "\"}";
        add("consumer_nanoseconds_total" + label, consumer.totalNanoseconds);
        add("consumer_exceptions_total" + label, consumer.exceptions);
        add("consumer_set_aside" + label, consumer.setAside ? 1 : 0);
    }
    return text;
}
// [end]

// [snippet: each-second]
/// Runs on a thread of its own, until the end. Each file is whole when it gets its name.
void Publish(const std::string& path, const std::future<void>& end) {
    bool isOver = false;
    while (!isOver) {
        isOver = end.wait_for(std::chrono::seconds(1)) == std::future_status::ready;
        std::ofstream(path + ".next")
            << Exposition(Metrics::MetricsManager::GetInstance()->GetStatistics());
        std::rename((path + ".next").c_str(), path.c_str());
    }
}
// [end]

// [snippet: log]
/// The application's log; it may take what time it needs, no emitter waits for it.
void Log(const MetricsError& error) {
    switch (error.reason) {
    case MetricsError::Reason::ConsumerThrew:
        try {
            std::rethrow_exception(error.exception);
        } catch (const std::exception& thrown) {
            std::printf("%s threw %" PRIu64 " times: %s\n", error.consumer.c_str(), error.count,
                        thrown.what());
        }
        break;
    case MetricsError::Reason::ConsumerSetAside:
        std::printf("%s is not called any more\n", error.consumer.c_str());
        break;
    case MetricsError::Reason::WriteFailed:
        std::printf("cannot write %s: error %d\n", error.path.c_str(), error.error);
        break;
    case MetricsError::Reason::DeliveryLags:
        std::printf("the delivery lags by %" PRIu64 " ms\n", error.nanoseconds / 1'000'000);
        break;
    default: // one of the losses
        std::printf("lost %" PRIu64 " events\n", error.count);
    }
}
// [end]

/// Refuses what it gets.
class Broken final : public Metrics::IMetricsListener {
public:
    void OnMetricsEvent(const Metrics::MetricsEvent&) override {
        throw std::runtime_error("no such table");
    }
};

} // namespace

int main(int argc, char** argv) {
    Metrics::MetricsRawClient client;
    for (int i = 1; i < argc; ++i)
        client.ProcessArgument(argv[i]);
    auto& manager = *Metrics::MetricsManager::GetInstance();

    // [snippet: bound]
    // At most 64 MiB wait for slow consumers; what comes then is dropped, counted and told.
    manager.SetQueueLimit(64 << 20, Metrics::MetricsQueuePolicy::DropNewest);
    manager.SetErrorHandler(Log, 2000); // also when an event has waited for two seconds
    manager.Enable();
    // [end]
    client.Open();
    {
        std::promise<void> end;
        std::thread publisher(Publish, "metrics.prom", end.get_future());
        // [snippet: options]
        Metrics::MetricsConsumerOptions options;
        options.name = "audit";            // in the figures and the log
        options.maxExceptions = 3;         // in a row
        options.maxCallMilliseconds = 500; // a call that takes longer is not waited for
        manager.AddConsumer(korsys::MakeRefCnt<Broken>(), Metrics::MetricsBits::all, false,
                            options);
        // [end]
        { const Metrics::Context context(0, Metrics::Context::Create(true), "request"); }
        end.set_value();
        publisher.join();
    }
    client.Close();

    // [snippet: end]
    const Metrics::MetricsShutdownReport report = manager.Shutdown(2000);
    if (!report.ended)
        std::printf("not delivered: %" PRIu64 " events; in %s for %" PRIu64 " ms\n",
                    report.statistics.queued, report.stuckConsumer.c_str(),
                    report.stuckNanoseconds / 1'000'000);
    // [end]
    std::fputs(Exposition(report.statistics).c_str(), stdout);
    return report.ended ? 0 : 1;
}
