#ifndef METRICS_TOOLS_EXPORT_OTLP_H
#define METRICS_TOOLS_EXPORT_OTLP_H

#include "Span.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Metrics::tools {

/// Some spans of one process as they go on the wire, one after the other.
struct EncodedSpans {
    std::string bytes;
    std::vector<std::size_t> ends; ///< where each of them ends

    std::size_t Count() const { return ends.size(); }
    std::string_view operator[](std::size_t i) const {
        const std::size_t begin = i == 0 ? 0 : ends[i - 1];
        return std::string_view(bytes).substr(begin, ends[i] - begin);
    }
    void Clear() {
        bytes.clear();
        ends.clear();
    }
};

enum class OtlpEncoding : unsigned char { Protobuf, Json };

/// Puts requests of the OpenTelemetry protocol together: spans are encoded one by one, a request is
/// made of any of them that follow each other.
///
/// Thread-safety: one thread at a time for each object.
class OtlpEncoder {
public:
    OtlpEncoder() = default;
    virtual ~OtlpEncoder() = default;
    OtlpEncoder(const OtlpEncoder&) = delete;
    OtlpEncoder& operator=(const OtlpEncoder&) = delete;

    /// @param offset from the span's stamps to nanoseconds since 1970.
    virtual void Add(const Span& span, std::int64_t offset, EncodedSpans& to) = 0;

    /// @return the request of the spans from `begin` up to `end`.
    virtual std::string MakeRequest(const RunIdentity& run, const EncodedSpans& spans,
                                    std::size_t begin, std::size_t end) = 0;

    /// What a request takes for each span, beside the span's own bytes, and for all of them
    /// together.
    static constexpr std::size_t perSpan = 8;
    std::size_t PerRequest(const RunIdentity& run) {
        return MakeRequest(run, {}, 0, 0).size() + 64;
    }
};

std::unique_ptr<OtlpEncoder> MakeOtlpEncoder(OtlpEncoding encoding);

/// What a collector says of a request that it took.
struct OtlpAnswer {
    std::int64_t rejected = 0;
    std::string message;
};

/// @param isJson what the collector says that its answer is. What cannot be read tells nothing.
OtlpAnswer ReadOtlpAnswer(std::string_view body, bool isJson);

/// Writes all runs as requests in JSON, one a line, none longer than a mebibyte unless one span is.
/// @param identities of the runs, in their order.
/// @throws std::runtime_error when the file cannot be written.
void WriteOtlp(const Model& model, const std::vector<RunIdentity>& identities,
               const std::string& path);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_OTLP_H
