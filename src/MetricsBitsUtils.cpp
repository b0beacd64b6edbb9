#include <metrics/MetricsBitsUtils.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace Metrics::MetricsBitsUtils {

namespace {

struct FilterBit {
    std::string_view mnemonic;
    std::uint64_t bits;
};

constexpr std::uint64_t categories = ~std::uint64_t{0xFFF};

constexpr bool ByMnemonic(const FilterBit& a, const FilterBit& b) {
    return a.mnemonic < b.mnemonic;
}

// Sorted when it is compiled: there is nothing to build at load and nothing to destroy at unload.
constexpr auto s_metricsFilterBits = [] {
#define METRICS_CATEGORY_ENTRY(name, value) FilterBit{#name, value},
    std::array table{METRICS_CATEGORIES(METRICS_CATEGORY_ENTRY)};
#undef METRICS_CATEGORY_ENTRY
    std::sort(table.begin(), table.end(), ByMnemonic);
    return table;
}();

std::uint64_t BitsOf(std::string_view mnemonic, OwnMnemonics own) {
    const auto* const found = std::lower_bound(
        s_metricsFilterBits.begin(), s_metricsFilterBits.end(), FilterBit{mnemonic, 0}, ByMnemonic);
    if (found != s_metricsFilterBits.end() && found->mnemonic == mnemonic)
        return found->bits;
    return own == nullptr ? 0 : own(mnemonic) & categories;
}

/// Calls `handle` with each piece between commas; n commas make n + 1 pieces.
template <class Handle>
void ForEachPiece(std::string_view list, Handle handle) {
    for (;;) {
        const std::size_t comma = list.find(',');
        handle(list.substr(0, comma));
        if (comma == std::string_view::npos)
            return;
        list.remove_prefix(comma + 1);
    }
}

void AppendPiece(std::string& list, std::string_view piece) {
    if (!list.empty())
        list += ',';
    list += piece;
}

} // namespace

std::uint64_t GetMetricsBitsFromMnemonicList(std::string const& list) {
    return GetMetricsBitsFromMnemonicList(list, nullptr);
}

std::uint64_t GetMetricsBitsFromMnemonicList(std::string const& list, OwnMnemonics own) {
    std::uint64_t bits = 0;
    ForEachPiece(list, [&bits, own](std::string_view piece) { bits |= BitsOf(piece, own); });
    return bits;
}

std::string ValidateMnemonicList(std::string const& list) {
    return ValidateMnemonicList(list, nullptr);
}

std::string ValidateMnemonicList(std::string const& list, OwnMnemonics own) {
    std::string unknown;
    ForEachPiece(list, [&unknown, own](std::string_view piece) {
        if (BitsOf(piece, own) == 0)
            AppendPiece(unknown, piece);
    });
    return unknown;
}

std::string MetricsBitsToMnemonicList(std::uint64_t bits) {
    std::string list;
    for (const FilterBit& entry : s_metricsFilterBits)
        if ((entry.bits & bits) != 0)
            AppendPiece(list, entry.mnemonic);
    return list;
}

} // namespace Metrics::MetricsBitsUtils
