// The command `metrics`: reads what was recorded, and answers questions about it.

#include "Load.h"
#include "Reader.h"
#include "Terminal.h"
#include "analysis/Check.h"
#include "analysis/Diff.h"
#include "analysis/Report.h"
#include "analysis/Slow.h"
#include "export/Chrome.h"
#include "export/Otlp.h"
#include "export/Send.h"
#include "export/Table.h"
#include "timeline/TimelinePage.h"
#include "view/Views.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using namespace Metrics::tools;

// The exit statuses, which docs/metrics-command.md tells.
constexpr int allWell = 0;
constexpr int notWell = 1; ///< `check` has found something, or `send` was refused some spans
constexpr int failed = 2;  ///< nothing could be read or written, or the arguments are wrong

/// What the sub-commands have in common.
struct Options {
    std::vector<std::string> files;
    std::string request;
    bool asJson = false;
    bool showAll = false;
};

/// Loads, and tells of problems as they come up.
class Loader {
public:
    Model Load(const Options& options) {
        ProgressLine progress;
        LoadObserver observer;
        observer.problem = [&](const std::string& message) {
            progress.Clear();
            std::fprintf(stderr, "metrics: %s\n", message.c_str());
        };
        observer.progress = [&](const std::string& path, double share) {
            progress.Show("reading " + path, share);
        };
        Model model = Metrics::tools::Load(options.files, observer);
        m_isComplete = model.runs.size() == options.files.size();
        if (!options.request.empty() && !HasContext(model, options.request))
            observer.problem("no context has the name '" + options.request + "'");
        return model;
    }

    /// Whether every file could be read, if only in part.
    bool IsComplete() const { return m_isComplete; }

private:
    static bool HasContext(const Model& model, const std::string& name) {
        const NameId wanted = model.names.Find(name);
        return wanted != noName &&
               std::any_of(model.runs.begin(), model.runs.end(), [=](auto& run) {
                   return std::any_of(run.contexts.begin(), run.contexts.end(),
                                      [=](auto& context) { return context.name == wanted; });
               });
    }

    bool m_isComplete = true;
};

Style MakeStyle(const Options& options) {
    Style style;
    style.colors = UsesColors();
    style.width = Columns();
    if (options.showAll)
        style.mostRows = 0;
    return style;
}

void Write(const Json& json) {
    std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

/// Prints a result as the options want it.
template <class Result>
void Print(const Options& options, const Result& result, const Names& names) {
    if (options.asJson)
        Write(ToJson(result, names));
    else
        PrintText(std::cout, result, names, MakeStyle(options));
}

CLI::App* AddCommand(CLI::App& app, const char* name, const char* what, Options& options) {
    CLI::App* const command = app.add_subcommand(name, what);
    command->add_flag("--json", options.asJson, "Print JSON, for programs");
    return command;
}

void AddRun(CLI::App* command, Options& options) {
    command->add_option("RUN", options.files, "File of events; - is the standard input")
        ->required()
        ->expected(1);
}

void AddRequest(CLI::App* command, Options& options) {
    command
        ->add_option("--request", options.request,
                     "Take the contexts of this name as requests, not the roots")
        ->option_text("NAME");
}

void AddAll(CLI::App* command, Options& options) {
    command->add_flag("--all", options.showAll, "Show every row");
}

void AddIdentity(CLI::App* command, std::string& service, std::string& host) {
    command
        ->add_option("--service", service,
                     "The name of the service ($OTEL_SERVICE_NAME, or the file's name)")
        ->option_text("NAME");
    command->add_option("--host", host, "The machine that the run was recorded on (this one)")
        ->option_text("NAME");
}

int RunReport(const Options& options) {
    Loader loader;
    const Model model = loader.Load(options);
    if (model.runs.empty())
        return failed;
    Print(options, MakeReport(model, options.request), model.names);
    return loader.IsComplete() ? allWell : failed;
}

int RunSlow(const Options& options, std::size_t count, std::optional<std::uint64_t> root,
            bool withEvents) {
    Loader loader;
    const Model model = loader.Load(options);
    if (!loader.IsComplete())
        return failed;
    std::vector<ContextTree> trees;
    if (root) {
        std::optional<ContextTree> tree = FindTree(model, *root);
        if (!tree) {
            std::fprintf(stderr, "metrics: there is no context %llu\n",
                         static_cast<unsigned long long>(*root));
            return failed;
        }
        trees.push_back(std::move(*tree));
    } else {
        trees = FindSlow(model, count, options.request);
    }
    if (options.asJson) {
        Write(ToJson(trees, model.names, withEvents));
        return allWell;
    }
    Style style = MakeStyle(options);
    style.withEvents = withEvents;
    PrintText(std::cout, trees, model.names, style);
    return allWell;
}

int RunDiff(const Options& options, double drift) {
    Loader loader;
    const Model model = loader.Load(options);
    if (!loader.IsComplete())
        return failed;
    Print(options, MakeDiff(model, {options.request, drift / 100}), model.names);
    return allWell;
}

int RunCheck(const Options& options) {
    Loader loader;
    const Model model = loader.Load(options);
    if (!loader.IsComplete())
        return failed;
    const Check check = MakeCheck(model);
    Print(options, check, model.names);
    return check.IsWell() ? allWell : notWell;
}

int RunTop(const Options& options, double seconds, std::uint64_t times) {
    const std::unique_ptr<Reader> reader = OpenCsv(options.files.front(), true);
    EventBatch batch;
    TopFollower follower;
    Top shown;
    LiveScreen screen(!options.asJson);
    for (std::uint64_t i = 0; times == 0 || i < times; ++i) {
        if (i > 0 && !screen.Wait(seconds))
            break;
        while (reader->Read(batch))
            for (const Event& event : batch.events)
                follower.Add(event);
        Top top = follower.Take();
        if (options.asJson) {
            std::cout << ToJson(top).dump(-1, ' ', false, Json::error_handler_t::replace)
                      << std::endl;
        } else {
            Style style = MakeStyle(options);
            style.mostRows = 10;
            if (top.events > 0 || i == 0) // otherwise what was last known stays
                shown = std::move(top);
            screen.Show([&](std::ostream& out) { PrintText(out, shown, style); });
        }
        if (!std::cout)
            return failed;
    }
    return allWell;
}

int RunTimeline(const Options& options, std::uint64_t keep, const std::string& path) {
    if (options.asJson && path == "-")
        throw std::runtime_error("--json and `-o -` both need the standard output");
    Loader loader;
    const Model model = loader.Load(options);
    if (model.runs.empty())
        return failed;
    const Timeline timeline = MakeTimeline(model, {options.request, keep});
    WriteTimelinePage(timeline, path);
    if (options.asJson)
        Write({{"file", path},
               {"slices", timeline.slices.size()},
               {"requests", timeline.allRequests},
               {"requests_kept", timeline.keptRequests}});
    return loader.IsComplete() ? allWell : failed;
}

/// What `convert` is asked for beside the files.
struct ConvertOptions {
    std::vector<std::string> to; ///< a format, and perhaps a time
    std::string path;
    std::string service;
    std::string host;
    std::string from;
    ChromeOptions chrome;
};

/// Seconds, or with a unit behind the number: s, ms, us, ns.
std::uint64_t ToNanoseconds(const std::string& text) {
    double number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit(result.ptr, text.data() + text.size());
    const double factor = unit.empty() || unit == "s" ? 1e9
                          : unit == "ms"              ? 1e6
                          : unit == "us"              ? 1e3
                          : unit == "ns"              ? 1
                                                      : 0;
    if (result.ec != std::errc() || factor == 0 || number < 0 || number * factor > 9e18)
        throw std::runtime_error("no time: '" + text + "'");
    return static_cast<std::uint64_t>(std::llround(number * factor));
}

int RunConvert(const Options& options, ConvertOptions wanted) {
    std::string format;
    for (const std::string& to : wanted.to) {
        const bool isFormat = to == "otlp" || to == "chrome" || to == "table";
        if (isFormat && !format.empty())
            throw std::runtime_error("one format at a time: " + format.append(" or ").append(to));
        if (isFormat)
            format = to;
        else
            wanted.chrome.to = ToNanoseconds(to);
    }
    if (!wanted.from.empty())
        wanted.chrome.from = ToNanoseconds(wanted.from);
    if (format.empty())
        throw std::runtime_error("--to takes otlp, chrome or table");
    const bool isPart =
        wanted.to.size() > 1 || !wanted.from.empty() || wanted.chrome.slowest || wanted.chrome.root;
    if (isPart && format != "chrome")
        throw std::runtime_error("only --to chrome takes a part of a run");
    if (wanted.chrome.from > wanted.chrome.to)
        throw std::runtime_error("--from is behind --to");
    if (format == "table" && wanted.path == "-")
        throw std::runtime_error("tables are two files: `-o NAME`");
    for (const std::string& file : options.files) {
        std::error_code none; // of a file that is not there
        if (format != "table" && file != "-" &&
            std::filesystem::equivalent(file, wanted.path, none))
            throw std::runtime_error("'" + wanted.path + "' is the run itself");
    }
    Loader loader;
    const Model model = loader.Load(options);
    if (model.runs.empty())
        return failed;
    if (wanted.chrome.root && !FindTree(model, *wanted.chrome.root))
        throw std::runtime_error("there is no context " + std::to_string(*wanted.chrome.root));
    std::vector<RunIdentity> identities;
    for (const Run& run : model.runs)
        identities.push_back(
            Identify(run.path, run.pid, run.wallOffset, wanted.service, wanted.host));
    if (format == "otlp")
        WriteOtlp(model, identities, wanted.path);
    else if (format == "table")
        WriteTables(model, identities, wanted.path);
    else
        WriteChrome(model, identities, wanted.chrome, wanted.path);
    return loader.IsComplete() ? allWell : failed;
}

int RunSend(const Options& options, SendOptions wanted) {
    wanted.paths = options.files;
    const SendResult result = Send(wanted, [](const std::string& message) {
        std::fprintf(stderr, "metrics: %s\n", message.c_str());
    });
    if (options.asJson)
        Write({{"runs", result.runs},
               {"spans", result.spans},
               {"sent_before", result.sentBefore},
               {"rejected", result.rejected},
               {"requests", result.requests}});
    else
        std::cout << result.spans << " spans sent, " << result.sentBefore << " were sent before, "
                  << result.rejected << " rejected\n";
    if (!result.isComplete || result.runs != wanted.paths.size())
        return failed;
    return result.rejected == 0 ? allWell : notWell;
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN); // `metrics ... | head` ends as any failed write does
    CLI::App app("Shows where the time went in recorded runs.\n"
                 "RUN is a file that the raw client has written, or - for the standard input.",
                 "metrics");
    app.set_version_flag("--version", "metrics " METRICS_TOOLS_VERSION);
    app.require_subcommand(1);
    Options options;
    int status = allWell;

    CLI::App* const report = AddCommand(app, "report", "Show where the time went", options);
    report->add_option("RUN", options.files, "Files of events; - is the standard input")
        ->required();
    AddRequest(report, options);
    AddAll(report, options);
    report->callback([&] { status = RunReport(options); });

    CLI::App* const slow =
        AddCommand(app, "slow", "Show the slowest requests, each as a tree with bars", options);
    std::size_t count = 5;
    std::optional<std::uint64_t> root;
    bool withEvents = false;
    AddRun(slow, options);
    AddRequest(slow, options);
    AddAll(slow, options);
    slow->add_option("-n", count, "How many")->option_text("N")->capture_default_str();
    slow->add_option("--root", root, "Show the context of this id instead")->option_text("ID");
    slow->add_flag("--events", withEvents, "Show attributes and events too");
    slow->callback([&] { status = RunSlow(options, count, root, withEvents); });

    CLI::App* const diff =
        AddCommand(app, "diff", "Show what changed between two runs, if it is no noise", options);
    double drift = 10;
    diff->add_option("BEFORE AFTER", options.files, "The two runs")->required()->expected(2);
    AddRequest(diff, options);
    AddAll(diff, options);
    diff->add_option("--drift", drift,
                     "By how many per cent two equal runs may differ as a whole (10)")
        ->option_text("PERCENT")
        ->check(CLI::Range(0.0, 1e6));
    diff->callback([&] { status = RunDiff(options, drift); });

    CLI::App* const check = AddCommand(app, "check", "Show what is missing or odd", options);
    AddRun(check, options);
    AddAll(check, options);
    check->callback([&] { status = RunCheck(options); });

    CLI::App* const top =
        AddCommand(app, "top", "Follow a file that is still being written", options);
    double seconds = 1;
    std::uint64_t times = 0;
    AddRun(top, options);
    top->add_option("-d", seconds, "Seconds between two looks (1)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.01, 1e6));
    top->add_option("-n", times, "How many looks, and then end (no end)")->option_text("N");
    top->callback([&] { status = RunTop(options, seconds, times); });

    CLI::App* const timeline = AddCommand(
        app, "timeline", "Make one HTML file to look at, and to send to others", options);
    std::string page;
    std::uint64_t keep = TimelineOptions().keep;
    timeline->add_option("RUN", options.files, "Files of events; - is the standard input")
        ->required();
    timeline->add_option("-o,--output", page, "The file to write; - is the standard output")
        ->option_text("FILE")
        ->required();
    AddRequest(timeline, options);
    timeline
        ->add_option("--keep", keep,
                     "Keep so many scopes, contexts, attributes and events: all of the slowest "
                     "requests; the others are summed up (1250000)")
        ->option_text("N");
    timeline->callback([&] { status = RunTimeline(options, keep, page); });

    CLI::App* const convert =
        app.add_subcommand("convert", "Write runs in a format that other programs read");
    ConvertOptions wanted;
    convert->add_option("RUN", options.files, "Files of events; - is the standard input")
        ->required();
    convert
        ->add_option(
            "--to", wanted.to,
            "otlp: requests of OpenTelemetry in JSON, one a line; chrome: trace events in "
            "JSON, for Perfetto and others; table: tables for SQL engines. Also the end of "
            "what --from begins")
        ->option_text("FORMAT|TIME")
        ->required()
        ->expected(1)
        ->take_all();
    convert
        ->add_option("-o,--output", wanted.path,
                     "The file to write, - is the standard output; of tables NAME.spans.csv and "
                     "NAME.events.csv")
        ->option_text("FILE|NAME")
        ->required();
    AddIdentity(convert, wanted.service, wanted.host);
    convert
        ->add_option("--from", wanted.from,
                     "Only what goes on behind this time, which is in seconds or has a unit, up to "
                     "that of another --to (chrome)")
        ->option_text("TIME");
    convert->add_option("--slowest", wanted.chrome.slowest, "Only so many requests (chrome)")
        ->option_text("N");
    convert->add_option("--root", wanted.chrome.root, "Only the context of this id (chrome)")
        ->option_text("ID");
    convert->callback([&] { status = RunConvert(options, wanted); });

    CLI::App* const send =
        AddCommand(app, "send", "Send runs to a collector of OpenTelemetry", options);
    SendOptions sending;
    bool isUncompressed = false;
    send->add_option("RUN", options.files, "Files of events; - is the standard input")->required();
    send->add_option("--otlp", sending.collector.url, "The collector, such as http://host:4318")
        ->option_text("URL")
        ->required();
    send->add_flag("--follow", sending.isFollowing,
                   "Go along with files that are being written, until interrupted");
    AddIdentity(send, sending.service, sending.host);
    send->add_option("--header", sending.collector.headers, "Send this header too, 'Name: value'")
        ->option_text("HEADER")
        ->expected(1)
        ->take_all();
    send->add_option("--encoding", sending.collector.encoding, "protobuf or json (protobuf)")
        ->option_text("NAME")
        ->transform(CLI::Transformer(std::map<std::string, OtlpEncoding>{
            {"protobuf", OtlpEncoding::Protobuf}, {"json", OtlpEncoding::Json}}));
    send->add_flag("--uncompressed", isUncompressed, "Do without gzip");
    send->add_option("--timeout", sending.collector.timeout, "Seconds for one request (10)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.1, 1e5));
    send->add_option("--patience", sending.patience,
                     "Seconds for which a request is sent again when the collector is away, where "
                     "no file is followed (60)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.0, 1e6));
    send->callback([&] {
        sending.collector.isCompressed = !isUncompressed;
        status = RunSend(options, sending);
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? allWell : failed;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "metrics: %s\n", error.what());
        return failed;
    }
    errno = 0;
    std::cout.flush();
    if (std::cout)
        return status;
    if (errno != EPIPE)
        std::fputs("metrics: cannot write to the standard output\n", stderr);
    return failed;
}
