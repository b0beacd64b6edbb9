// Lists of mnemonics and masks: what one function says agrees with the others.

#include <metrics/MetricsBitsUtils.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace Metrics::MetricsBitsUtils;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto check = [](bool good) {
        if (!good)
            std::abort();
    };
    std::uint64_t mask = 0;
    std::memcpy(&mask, data, std::min(size, sizeof mask));
    const std::string list(reinterpret_cast<const char*>(data), size);

    // Each piece is either known or reported.
    const std::string unknown = ValidateMnemonicList(list);
    const std::uint64_t bits = GetMetricsBitsFromMnemonicList(list);
    check(GetMetricsBitsFromMnemonicList(unknown) == 0 && ValidateMnemonicList(unknown) == unknown);
    check(std::count(unknown.begin(), unknown.end(), ',') <=
          std::count(list.begin(), list.end(), ','));
    check(bits != 0 || unknown.size() + 64 >= list.size() || list.find(",,") != list.npos);
    check(GetMetricsBitsFromMnemonicList(list + ',' + unknown) == bits);

    // Names that were made from bits are known, and mean at least these bits.
    for (const std::uint64_t from : {bits, mask}) {
        const std::string names = MetricsBitsToMnemonicList(from);
        const std::uint64_t known = 0xFFFFFFFFFFFF1000;
        check(ValidateMnemonicList(names).empty());
        check((GetMetricsBitsFromMnemonicList(names) & from) == (from & known));
    }
    return 0;
}
