#include "Checksums.h"

#include <metrics/Metrics.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

constexpr const char* usage =
    "usage: checksums [--threads=NUMBER] [--metrics-set=LIST | --metrics-setabs=LIST]\n"
    "                 [--metrics-clear=LIST] [--metrics-raw=FILE] FILE...\n"
    "Prints a sum of each file. What --metrics- stands in front of says what is recorded, and "
    "where.\n";

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

int ToNumber(const std::string& text) {
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number < 1 || number > 1024)
        throw UsageError("not a number of threads: '" + text + "'");
    return static_cast<int>(number);
}

int Run(const std::vector<std::string>& arguments) {
    constexpr std::string_view prefix = "--metrics";
    constexpr std::string_view threadsOption = "--threads=";
    Metrics::MetricsRawClient client;
    std::vector<std::filesystem::path> files;
    int threads = 4;
    for (const std::string& argument : arguments) {
        bool isKnown = true;
        if (argument.rfind(threadsOption, 0) == 0)
            threads = ToNumber(argument.substr(threadsOption.size()));
        else if (argument.rfind(prefix, 0) == 0)
            isKnown = client.ProcessArgument(argument.substr(prefix.size()));
        else if (argument.rfind('-', 0) == 0)
            isKnown = false;
        else
            files.emplace_back(argument);
        if (!isKnown)
            throw UsageError("unknown option '" + argument + "'");
    }
    if (files.empty())
        throw UsageError("no file");

    Metrics::MetricsManager::GetInstance()->Enable();
    std::error_code error;
    if (!client.Open(error) && error)
        throw std::runtime_error("cannot record: " + error.message());
    const int unreadable = PrintChecksums(files, threads);
    client.Close();
    Metrics::MetricsManager::ShutdownAndFreeInstance();
    return unreadable == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run({argv + 1, argv + argc});
    } catch (const UsageError& error) {
        std::fprintf(stderr, "checksums: %s\n%s", error.what(), usage);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "checksums: %s\n", error.what());
        return 1;
    }
}
