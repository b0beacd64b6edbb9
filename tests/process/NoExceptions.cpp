// A host that is built without exceptions.

#include "../support/Exercise.h"
#include "../support/Process.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#ifdef __cpp_exceptions
#error "built with exceptions"
#endif

using namespace Metrics;
using namespace Metrics::test;

namespace {

void RecordsEverything() {
    const TemporaryFile file;
    const std::string folder = file.path + ".trace";
    MetricsRawClient client;
    MetricsTraceClient trace;
    std::error_code error = std::make_error_code(std::errc::io_error);
    VERIFY(Manager().Enable(error));
    VERIFY(!error);
    VERIFY(client.ProcessArgument("-raw=" + file.path));
    VERIFY(client.Open(error));
    VERIFY(!error);
    VERIFY(trace.ProcessArgument("-trace=" + folder));
    VERIFY(trace.Open(error));
    VERIFY(!error);
    Context request(0, Context::Create(true), "request");
    std::thread([child = UniqueMetricsContext(true, "child"), &request] {
        const auto context = child.Open();
        const ContextGuard guard(request);
        UseEverything("text");
    }).join();
    VERIFY(trace.Close(forever));
    VERIFY(std::filesystem::file_size(folder + "/events-000000") > 0);
    std::filesystem::remove_all(folder);
    VERIFY(client.Close(forever));
    const std::string text = ReadFile(file.path);
    VERIFY(Count(text, ",5,request,0\n") == 1);
    VERIFY(Count(text, ",5,child,0\n") == 1);
    VERIFY(Count(text, ",8,name,text\n") == 1);
}

void IsToldWhyTheThreadCannotStart() {
    std::error_code error = std::make_error_code(std::errc::io_error);
    rlimit limit{};
    VERIFY(getrlimit(RLIMIT_AS, &limit) == 0);
    const rlimit before = limit;
    limit.rlim_cur = 1; // no more memory for a stack
    VERIFY(setrlimit(RLIMIT_AS, &limit) == 0);
    const bool isEnabled = Manager().Enable(error);
    VERIFY(setrlimit(RLIMIT_AS, &before) == 0);
    VERIFY(!isEnabled);
    VERIFY((error == std::errc::resource_unavailable_try_again));
    for (int again = 0; again < 2; ++again) {
        VERIFY(Manager().Enable(error));
        VERIFY(!error);
    }
    bool isDelivered = false;
    Consume(false, [&isDelivered](const MetricsEvent&) { isDelivered = true; });
    Send("event");
    Flush();
    VERIFY(isDelivered);
    MetricsManager::ShutdownAndFreeInstance();
    VERIFY(!Manager().Enable(error)); // is off
    VERIFY(!error);
}

void IsToldWhyAFileCannotBeOpened() {
    Start();
    MetricsRawClient client;
    std::error_code error = std::make_error_code(std::errc::io_error);
    VERIFY(!client.Open(error));
    VERIFY(!error); // there is no name: nothing to do
    const TemporaryFile folder;
    VERIFY(mkdir(folder.path.c_str(), 0700) == 0);
    const std::pair<std::string, std::errc> rows[] = {
        {folder.path, std::errc::is_a_directory},
        {folder.path + "/missing/file", std::errc::no_such_file_or_directory},
        {std::string(5000, 'x'), std::errc::filename_too_long}};
    for (const auto& [path, reason] : rows) {
        client.SetOutputFileName(path);
        VERIFY(!client.Open(error));
        VERIFY((error == reason));
        VERIFY(client.Close(0)); // is closed
    }
    VERIFY(rmdir(folder.path.c_str()) == 0);
    client.SetOutputFileName(folder.path);
    VERIFY(client.Open(error));
    VERIFY(!error);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<Case> cases{{"RecordsEverything", RecordsEverything},
                            {"IsToldWhyAFileCannotBeOpened", IsToldWhyAFileCannotBeOpened}};
    if (sanitizer.empty()) // whose runtimes need memory as well
        cases.push_back({"IsToldWhyTheThreadCannotStart", IsToldWhyTheThreadCannotStart});
    return RunCases(argc, argv, cases);
}
