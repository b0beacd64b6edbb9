// The command `metrics`: reads what was recorded, and answers questions about it.

#include "Load.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

using namespace Metrics::tools;

int main(int argc, char** argv) {
    CLI::App app("Shows where the time went in a recorded run.", "metrics");
    app.require_subcommand(1);

    std::vector<std::string> files;
    CLI::App* const report = app.add_subcommand("report", "Where the time went");
    report->add_option("RUN", files, "Files of events; - is the standard input")->required();
    report->callback([&] {
        const Model model = Load(files);
        for (const Run& run : model.runs)
            std::printf("%s: %zu contexts, %zu scopes, %zu requests\n", run.path.c_str(),
                        run.contexts.size(), run.scopes.size(), Requests(model, run).size());
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const ReadError& error) {
        std::fprintf(stderr, "metrics: %s\n", error.what());
        return 2;
    }
    return 0;
}
