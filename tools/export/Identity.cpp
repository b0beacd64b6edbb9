#include "Identity.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <filesystem>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Metrics::tools {

namespace {

/// Lower-case hexadecimal digits only, all of them.
std::optional<std::uint64_t> ToNumber(std::string_view digits) {
    std::uint64_t number = 0;
    for (const char c : digits) {
        const bool isDigit = c >= '0' && c <= '9';
        if (!isDigit && (c < 'a' || c > 'f'))
            return std::nullopt;
        number = number << 4 | static_cast<std::uint64_t>(isDigit ? c - '0' : c - 'a' + 10);
    }
    return number;
}

} // namespace

std::optional<TraceParent> ParseTraceParent(std::string_view text) {
    constexpr std::size_t length = 2 + 1 + 32 + 1 + 16 + 1 + 2; // 00-trace-span-flags
    if (text.size() < length || text[2] != '-' || text[35] != '-' || text[52] != '-')
        return std::nullopt;
    const auto version = ToNumber(text.substr(0, 2));
    const auto high = ToNumber(text.substr(3, 16));
    const auto low = ToNumber(text.substr(19, 16));
    const auto span = ToNumber(text.substr(36, 16));
    const auto flags = ToNumber(text.substr(53, 2));
    if (!version || !high || !low || !span || !flags || *version == 0xff)
        return std::nullopt;
    if (text.size() > length && (*version == 0 || text[length] != '-'))
        return std::nullopt;
    if ((*high | *low) == 0 || *span == 0)
        return std::nullopt;
    return TraceParent{{*high, *low}, *span};
}

RunIdentity Identify(const std::string& path, std::int64_t pid, std::int64_t start,
                     const std::string& service, const std::string& host) {
    RunIdentity identity{service, host, pid, start};
    // There is no other thread that changes it. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* const variable = std::getenv("OTEL_SERVICE_NAME");
    if (identity.service.empty() && variable != nullptr)
        identity.service = variable;
    if (identity.service.empty())
        identity.service =
            path == "-" ? "unknown_service" : std::filesystem::path(path).stem().string();
    if (identity.host.empty()) {
        std::array<char, 256> name{};
        gethostname(name.data(), name.size() - 1);
        identity.host = name.data();
    }
    return identity;
}

SpanIds::SpanIds(const RunIdentity& identity) {
    std::string text = identity.host;
    text += '\0';
    text += std::to_string(identity.pid);
    text += '\0';
    text += std::to_string(identity.start);
    const XXH128_hash_t hash = XXH3_128bits(text.data(), text.size());
    m_run = {hash.high64, hash.low64};
}

TraceId SpanIds::Trace(std::uint64_t root) const {
    const std::array<std::uint64_t, 3> parts{m_run.high, m_run.low, root};
    const XXH128_hash_t hash = XXH3_128bits(parts.data(), sizeof parts);
    return {hash.high64, hash.low64 == 0 ? 1 : hash.low64};
}

SpanId SpanIds::Make(std::uint64_t kind, std::uint64_t context, std::uint64_t ordinal) const {
    const std::array<std::uint64_t, 5> parts{m_run.high, m_run.low, kind, context, ordinal};
    const XXH64_hash_t hash = XXH3_64bits(parts.data(), sizeof parts);
    return hash == 0 ? 1 : hash;
}

TreeIdentity IdentifyTree(const SpanIds& ids, std::uint64_t root,
                          const std::optional<TraceParent>& given,
                          const std::optional<TraceParent>& sent) {
    TreeIdentity tree{ids.Trace(root), 0, ids.OfContext(root)};
    if (given) {
        tree.trace = given->trace;
        tree.parent = given->span;
    }
    const bool isSame = sent && given && sent->trace == given->trace && sent->span != given->span;
    if (sent && (!given || isSame)) {
        tree.trace = sent->trace;
        tree.root = sent->span;
    }
    return tree;
}

} // namespace Metrics::tools
