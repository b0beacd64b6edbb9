// What the conversions between masks and lists of mnemonics keep, whatever the list.

#include <metrics/MetricsBitsUtils.h>

#include <algorithm>
#include <cstdlib>

using namespace Metrics::MetricsBitsUtils;

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
    const std::string list(data, size);
    const std::uint64_t bits = GetMetricsBitsFromMnemonicList(list);
    const std::string unknown = ValidateMnemonicList(list);
    const std::string known = MetricsBitsToMnemonicList(bits);
    const std::uint64_t widened = GetMetricsBitsFromMnemonicList(known);
    const bool hasAll = (bits & Metrics::MetricsBits::all) != 0;
    const bool holds = GetMetricsBitsFromMnemonicList(unknown) == 0 &&
                       ValidateMnemonicList(unknown) == unknown &&
                       ValidateMnemonicList(known).empty() &&
                       widened == (hasAll ? bits | Metrics::MetricsBits::all : bits) &&
                       GetMetricsBitsFromMnemonicList(known + ',' + list) == widened &&
                       unknown.size() <= list.size();
    if (!holds)
        std::abort();
    return 0;
}
