// Writes one event into the file that the command line names, and looks for it there.

#include <metrics/Metrics.h>

#include <fstream>
#include <iterator>
#include <string>

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

    std::ifstream file(argv[1]);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    return text.find(",1,7,answer,42\n") != std::string::npos ? 0 : 1;
}
