// Writes one event into the file that the command line names.

#include <metrics/Metrics.h>

int main(int argc, char** argv) {
    Metrics::MetricsRawClient client;
    client.SetOutputFileName(argc > 1 ? argv[1] : "");
    Metrics::MetricsManager::GetInstance()->Enable();
    if (!client.Open())
        return 2;
    {
        const Metrics::Scope scope("work", Metrics::MetricsBits::act);
        scope.Emit("answer", 42);
    }
    client.Close();
    Metrics::MetricsManager::ShutdownAndFreeInstance();
}
