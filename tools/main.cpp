// The command `metrics`: reads what was recorded, and answers questions about it.

#include "Load.h"
#include "TimelinePage.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
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

    std::string page;
    TimelineOptions timelineOptions;
    CLI::App* const timeline =
        app.add_subcommand("timeline", "One HTML file to look at, and to send to a colleague");
    timeline->add_option("RUN", files, "Files of events; - is the standard input")->required();
    timeline->add_option("-o,--output", page, "The file to write")->required();
    timeline->add_option("--request", timelineOptions.request,
                         "Take the contexts of this name as the requests");
    timeline->add_option(
        "--keep", timelineOptions.keep,
        "Keep so many slices, attributes and events, those of the slowest requests");
    timeline->callback([&] {
        const Model model = Load(files);
        WriteTimelinePage(MakeTimeline(model, timelineOptions), page);
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const ReadError& error) {
        std::fprintf(stderr, "metrics: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "metrics: %s\n", error.what());
        return 1;
    }
    return 0;
}
