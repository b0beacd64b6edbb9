// A host that is built without exceptions.

#include "../support/Exercise.h"
#include "../support/Process.h"

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
    MetricsRawClient client;
    const Session session;
    VERIFY(client.ProcessArgument("-raw=" + file.path));
    std::error_code error = std::make_error_code(std::errc::io_error);
    VERIFY(client.Open(error));
    VERIFY(!error);
    Context request(0, Context::Create(true), "request");
    std::thread([child = UniqueMetricsContext(true, "child"), &request] {
        const auto context = child.Open();
        const ContextGuard guard(request);
        UseEverything("text");
    }).join();
    VERIFY(client.Close(forever));
    const std::string text = ReadFile(file.path);
    VERIFY(Count(text, ",5,request,0\n") == 1);
    VERIFY(Count(text, ",5,child,0\n") == 1);
    VERIFY(Count(text, ",8,name,text\n") == 1);
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
    return RunCases(argc, argv,
                    {{"RecordsEverything", RecordsEverything},
                     {"IsToldWhyAFileCannotBeOpened", IsToldWhyAFileCannotBeOpened}});
}
