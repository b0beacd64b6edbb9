#ifndef METRICS_BITS_UTILS_H
#define METRICS_BITS_UTILS_H

#include <metrics/MetricsExport.h>

#include <cstdint>
#include <string>
#include <string_view>

/// The categories: mnemonic and value. The one list behind MetricsBits and the mnemonic table.
#define METRICS_CATEGORIES(X)                                                                      \
    X(highvol, std::uint64_t{1} << 12)                                                             \
    X(act, std::uint64_t{1} << 16)                                                                 \
    X(cache, std::uint64_t{1} << 17)                                                               \
    X(cmd, std::uint64_t{1} << 18)                                                                 \
    X(comp, std::uint64_t{1} << 19)                                                                \
    X(edit, std::uint64_t{1} << 20)                                                                \
    X(fltr, std::uint64_t{1} << 21)                                                                \
    X(flex, std::uint64_t{1} << 22)                                                                \
    X(flexlog, std::uint64_t{1} << 23)                                                             \
    X(geosearch, std::uint64_t{1} << 24)                                                           \
    X(lay, std::uint64_t{1} << 25)                                                                 \
    X(log, std::uint64_t{1} << 26)                                                                 \
    X(ldi, std::uint64_t{1} << 27)                                                                 \
    X(mdx, std::uint64_t{1} << 28)                                                                 \
    X(misc, std::uint64_t{1} << 29)                                                                \
    X(net, std::uint64_t{1} << 30)                                                                 \
    X(parse, std::uint64_t{1} << 31)                                                               \
    X(pipe, std::uint64_t{1} << 32)                                                                \
    X(proto, std::uint64_t{1} << 33)                                                               \
    X(query, std::uint64_t{1} << 34)                                                               \
    X(queryd, std::uint64_t{1} << 35)                                                              \
    X(rend, std::uint64_t{1} << 36)                                                                \
    X(rpipe, std::uint64_t{1} << 37)                                                               \
    X(sql, std::uint64_t{1} << 38)                                                                 \
    X(test1, std::uint64_t{1} << 39)                                                               \
    X(test2, std::uint64_t{1} << 40)                                                               \
    X(kel, std::uint64_t{1} << 41)                                                                 \
    X(viz, std::uint64_t{1} << 42)                                                                 \
    X(tel, std::uint64_t{1} << 43)                                                                 \
    X(kelstor, std::uint64_t{1} << 44)                                                             \
    X(kelstorhigh, std::uint64_t{1} << 45)                                                         \
    X(kelexec, std::uint64_t{1} << 46)                                                             \
    X(kelmeta, std::uint64_t{1} << 47)                                                             \
    X(kelopt, std::uint64_t{1} << 48)                                                              \
    X(kelflow, std::uint64_t{1} << 49)                                                             \
    X(all, 0xFFFFFFFFFFFF0000)

namespace Metrics {

/// The category bits for use in code: `Scope scope("read", MetricsBits::act | MetricsBits::net);`
namespace MetricsBits {

/// One enumerator for each category; `all` is bits 16 to 63, without highvol.
enum Category : std::uint64_t {
#define METRICS_CATEGORY_ENUMERATOR(name, value) name = value,
    METRICS_CATEGORIES(METRICS_CATEGORY_ENUMERATOR)
#undef METRICS_CATEGORY_ENUMERATOR
};

} // namespace MetricsBits

/// Conversions between category masks and comma-separated lists of mnemonics, such as "act,net".
///
/// Pieces between commas are used as they stand: no white space is trimmed and no case folded. An
/// empty piece is an unknown one.
namespace MetricsBitsUtils {

/// The mask of all known mnemonics in the list; unknown ones are skipped.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: takes no lock and allocates nothing.
METRICS_EXPORT std::uint64_t GetMetricsBitsFromMnemonicList(std::string const& list);

/// An application's own mnemonics, for categories that have none here (bits 13 to 15 and 50 to 63):
/// @return the bits of one, 0 for an unknown one. It is asked for the pieces of a list that are
/// unknown here, and on the calling thread only.
///
///     std::uint64_t OwnBits(std::string_view mnemonic) noexcept {
///         return mnemonic == "billing" ? std::uint64_t{1} << 50 : 0;
///     }
using OwnMnemonics = std::uint64_t (*)(std::string_view mnemonic);

/// The same with the application's own mnemonics; null has none.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: takes no lock and allocates nothing.
/// @throws what `own` throws.
METRICS_EXPORT std::uint64_t GetMetricsBitsFromMnemonicList(std::string const& list,
                                                            OwnMnemonics own);

/// The unknown pieces of the list, comma-separated, in their order; empty when all are known.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: takes no lock; allocates the result.
/// @throws std::bad_alloc
METRICS_EXPORT std::string ValidateMnemonicList(std::string const& list);

/// The same with the application's own mnemonics; null has none.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: takes no lock; allocates the result.
/// @throws std::bad_alloc, and what `own` throws.
METRICS_EXPORT std::string ValidateMnemonicList(std::string const& list, OwnMnemonics own);

/// Every mnemonic that shares a bit with the mask, in byte order, comma-separated. "all" is listed
/// for any mask with one of bits 16 to 63, so a round trip widens such a mask.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: takes no lock; allocates the result.
/// @throws std::bad_alloc
METRICS_EXPORT std::string MetricsBitsToMnemonicList(std::uint64_t bits);

} // namespace MetricsBitsUtils
} // namespace Metrics

#endif // METRICS_BITS_UTILS_H
