// [snippet: first]
// Run it as: first_event -set=act -raw=events.csv
#include <metrics/Metrics.h>

#include <cstdio>

using namespace Metrics;

int main(int argc, char** argv) {
    // The built-in consumer writes a CSV file. The arguments say which, and what goes into it.
    MetricsRawClient client;
    for (int i = 1; i < argc; ++i)
        if (!client.ProcessArgument(argv[i]))
            std::printf("ignored: %s\n", argv[i]);

    MetricsManager::GetInstance()->Enable(); // from here on events are recorded
    client.Open();                           // without -raw= this does nothing

    {
        // A context is a unit of work, such as a request. This one has no parent: it is a root.
        Context request(0, Context::Create(true), "request");

        // A scope is a stretch of that work. It belongs to the category `act`: when `act` is
        // off, it costs one load and records nothing.
        Scope scope("read", MetricsBits::act);
        Attribute("file", "/etc/hostname", MetricsBits::act); // a fact about the context
        scope.Emit("bytes", 4096);                            // an event of your own
        // The scope closes here, then the context.
    }

    client.Close(); // returns when all of it is in the file, after five seconds at the latest
    MetricsManager::ShutdownAndFreeInstance();
}
// [end]
