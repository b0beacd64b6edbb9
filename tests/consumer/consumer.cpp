// Opens a raw client, emits, shuts down, and compares the file with what was emitted.

#include <metrics/Metrics.h>

#include <fstream>
#include <iostream>
#include <string>

namespace {

void Work() {
    Metrics::Context context(0, Metrics::Context::Create(true));
    context.SetName("stranger");
    const Metrics::Scope scope("work", Metrics::MetricsBits::act);
    const Metrics::Scope off("not asked for", Metrics::MetricsBits::net);
    scope.Emit("answer", 42);
}

/// The file from context_id on: without the two times, and without the ids of process and thread.
std::string Read(const char* file) {
    std::ifstream stream(file);
    std::string text;
    for (std::string line; std::getline(stream, line);) {
        line.erase(0, line.find(',', line.find(',') + 1) + 1);
        if (line.rfind("2,8,pid,", 0) == 0 || line.rfind("2,8,tid,", 0) == 0)
            line.resize(7);
        text += line + '\n';
    }
    return text;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    Metrics::MetricsRawClient client;
    client.ProcessArgument("-setabs=act");
    client.ProcessArgument(std::string("-raw=") + argv[1]);
    Metrics::MetricsManager::GetInstance()->Enable();
    if (!client.Open())
        return 3;
    Work();
    client.Close();
    Metrics::MetricsManager::ShutdownAndFreeInstance();

    const std::string expected = "context_id,event_type,param1,param2\n"
                                 "0,2,0,1\n0,3,0,1\n" // the client's own context
                                 "0,2,0,2\n0,3,0,2\n"
                                 "2,8,pid\n2,8,tid\n2,8,cid,2\n2,5,stranger,0\n"
                                 "2,5,work,0\n2,7,answer,42\n2,6,work,0\n"
                                 "2,6,stranger,0\n0,4,0,2\n"
                                 "0,4,0,1\n";
    const std::string text = Read(argv[1]);
    std::cerr << (text == expected ? "" : text);
    return text == expected ? 0 : 1;
}
