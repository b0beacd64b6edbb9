#include "Otlp.h"

#include "Output.h"
#include "Text.h"

#include <export/otlp.pb.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <type_traits>
#include <variant>

namespace Metrics::tools {

namespace {

constexpr std::string_view sdkName = "metrics";
constexpr std::string_view sdkVersion = METRICS_TOOLS_VERSION;
constexpr std::string_view queueName = "queue";
constexpr std::string_view unnamed = "(never used)";
constexpr std::string_view threadKey = "thread.id";
constexpr std::string_view eventKey = "value"; ///< of an event's second value

std::string_view NameOf(const Span& span) {
    if (span.kind == SpanKind::Queue)
        return queueName;
    return span.kind == SpanKind::Context && span.label.empty() ? unnamed : span.label;
}

std::uint64_t Wall(std::uint64_t stamp, std::int64_t offset) {
    return stamp + static_cast<std::uint64_t>(offset);
}

/// A context tells its thread, unless the application did so by itself.
bool TellsThread(const Span& span) {
    return span.kind == SpanKind::Context && span.thread != noThread &&
           std::none_of(span.attributes.begin(), span.attributes.end(),
                        [](const SpanAttribute& a) { return a.name == threadKey; });
}

/// Calls add(name, value) for what the resource of a run has.
template <class Add>
void ForEachResourceAttribute(const RunIdentity& run, Add add) {
    add("service.name", Value(std::string_view(run.service)));
    add("host.name", Value(std::string_view(run.host)));
    if (run.pid != noThread)
        add("process.pid", Value(run.pid));
    add("telemetry.sdk.name", Value(sdkName));
    add("telemetry.sdk.language", Value(std::string_view("cpp")));
    add("telemetry.sdk.version", Value(sdkVersion));
}

class JsonEncoder final : public OtlpEncoder {
public:
    void Add(const Span& span, std::int64_t offset, EncodedSpans& to) override {
        std::string& out = to.bytes;
        out += R"({"traceId":")";
        AppendHex(out, span.trace.high);
        AppendHex(out, span.trace.low);
        out += R"(","spanId":")";
        AppendHex(out, span.id);
        if (span.parent != 0) {
            out += R"(","parentSpanId":")";
            AppendHex(out, span.parent);
        }
        out += R"(","name":)";
        AppendJsonString(out, NameOf(span));
        out += R"(,"kind":1,"startTimeUnixNano":")";
        AppendNumber(out, Wall(span.start, offset));
        out += R"(","endTimeUnixNano":")";
        AppendNumber(out, Wall(span.end, offset));
        out += '"';
        if (TellsThread(span) || !span.attributes.empty()) {
            out += R"(,"attributes":[)";
            if (TellsThread(span))
                AppendAttribute(out, threadKey, Value(span.thread));
            for (const SpanAttribute& attribute : span.attributes)
                AppendAttribute(out, attribute.name, ToValue(attribute.value));
            out += ']';
        }
        if (!span.events.empty()) {
            out += R"(,"events":[)";
            for (const SpanEvent& event : span.events) {
                out += out.back() == '[' ? "" : ",";
                out += R"({"timeUnixNano":")";
                AppendNumber(out, Wall(event.stamp, offset));
                out += R"(","name":)";
                AppendJsonString(out, event.name);
                out += R"(,"attributes":[)";
                AppendAttribute(out, eventKey, ToValue(event.value));
                out += "]}";
            }
            out += ']';
        }
        if (span.droppedEvents != 0) {
            out += R"(,"droppedEventsCount":)";
            AppendNumber(out, span.droppedEvents);
        }
        out += '}';
        to.ends.push_back(out.size());
    }

    std::string MakeRequest(const RunIdentity& run, const EncodedSpans& spans, std::size_t begin,
                            std::size_t end) override {
        std::string out = R"({"resourceSpans":[{"resource":{"attributes":[)";
        ForEachResourceAttribute(run, [&](std::string_view name, const Value& value) {
            AppendAttribute(out, name, value);
        });
        out += R"(]},"scopeSpans":[{"scope":{"name":)";
        AppendJsonString(out, sdkName);
        out += R"(,"version":)";
        AppendJsonString(out, sdkVersion);
        out += R"(},"spans":[)";
        for (std::size_t i = begin; i < end; ++i) {
            out += i == begin ? "" : ",";
            out += spans[i];
        }
        out += "]}]}]}";
        return out;
    }

private:
    static void AppendAttribute(std::string& out, std::string_view name, const Value& value) {
        out += out.back() == '[' ? "" : ",";
        out += R"({"key":)";
        AppendJsonString(out, name);
        out += R"(,"value":{)";
        std::visit(
            [&](auto held) {
                using Held = decltype(held);
                if constexpr (std::is_same_v<Held, std::string_view>) {
                    out += R"("stringValue":)";
                    AppendJsonString(out, held);
                } else if constexpr (std::is_same_v<Held, std::int64_t>) {
                    out += R"("intValue":")";
                    AppendNumber(out, held);
                    out += '"';
                } else if constexpr (std::is_same_v<Held, bool>) {
                    out += held ? R"("boolValue":true)" : R"("boolValue":false)";
                } else {
                    out += R"("doubleValue":)";
                    AppendJsonDouble(out, held);
                }
            },
            value);
        out += "}}";
    }
};

class ProtobufEncoder final : public OtlpEncoder {
public:
    void Add(const Span& span, std::int64_t offset, EncodedSpans& to) override {
        m_span.Clear();
        std::string* const trace = m_span.mutable_trace_id();
        AppendBytes(*trace, span.trace.high);
        AppendBytes(*trace, span.trace.low);
        AppendBytes(*m_span.mutable_span_id(), span.id);
        if (span.parent != 0)
            AppendBytes(*m_span.mutable_parent_span_id(), span.parent);
        AppendUtf8(*m_span.mutable_name(), NameOf(span));
        m_span.set_kind(otlp::Span::INTERNAL);
        m_span.set_start_time_unix_nano(Wall(span.start, offset));
        m_span.set_end_time_unix_nano(Wall(span.end, offset));
        if (TellsThread(span))
            Set(*m_span.add_attributes(), threadKey, Value(span.thread));
        for (const SpanAttribute& attribute : span.attributes)
            Set(*m_span.add_attributes(), attribute.name, ToValue(attribute.value));
        for (const SpanEvent& event : span.events) {
            otlp::Event& message = *m_span.add_events();
            message.set_time_unix_nano(Wall(event.stamp, offset));
            AppendUtf8(*message.mutable_name(), event.name);
            Set(*message.add_attributes(), eventKey, ToValue(event.value));
        }
        m_span.set_dropped_events_count(static_cast<std::uint32_t>(std::min<std::uint64_t>(
            span.droppedEvents, std::numeric_limits<std::uint32_t>::max())));
        m_span.AppendToString(&to.bytes);
        to.ends.push_back(to.bytes.size());
    }

    std::string MakeRequest(const RunIdentity& run, const EncodedSpans& spans, std::size_t begin,
                            std::size_t end) override {
        otlp::ExportTraceServiceRequest request;
        otlp::ResourceSpans& process = *request.add_resource_spans();
        ForEachResourceAttribute(run, [&](std::string_view name, const Value& value) {
            Set(*process.mutable_resource()->add_attributes(), name, value);
        });
        otlp::ScopeSpans& library = *process.add_scope_spans();
        library.mutable_scope()->set_name(std::string(sdkName));
        library.mutable_scope()->set_version(std::string(sdkVersion));
        for (std::size_t i = begin; i < end; ++i)
            library.add_spans(spans[i].data(), spans[i].size());
        return request.SerializeAsString();
    }

private:
    /// The highest first, as the digits in JSON.
    static void AppendBytes(std::string& out, std::uint64_t number) {
        for (int shift = 56; shift >= 0; shift -= 8)
            out += static_cast<char>(number >> shift & 0xff);
    }

    static void Set(otlp::KeyValue& to, std::string_view name, const Value& value) {
        AppendUtf8(*to.mutable_key(), name);
        otlp::AnyValue& message = *to.mutable_value();
        std::visit(
            [&](auto held) {
                using Held = decltype(held);
                if constexpr (std::is_same_v<Held, std::string_view>)
                    AppendUtf8(*message.mutable_string_value(), held);
                else if constexpr (std::is_same_v<Held, std::int64_t>)
                    message.set_int_value(held);
                else if constexpr (std::is_same_v<Held, bool>)
                    message.set_bool_value(held);
                else
                    message.set_double_value(held);
            },
            value);
    }

    otlp::Span m_span;
};

} // namespace

std::unique_ptr<OtlpEncoder> MakeOtlpEncoder(OtlpEncoding encoding) {
    if (encoding == OtlpEncoding::Json)
        return std::make_unique<JsonEncoder>();
    return std::make_unique<ProtobufEncoder>();
}

OtlpAnswer ReadOtlpAnswer(std::string_view body, bool isJson) {
    OtlpAnswer answer;
    if (!isJson) {
        otlp::ExportTraceServiceResponse response;
        if (response.ParseFromArray(body.data(), static_cast<int>(body.size()))) {
            answer.rejected = response.partial_success().rejected_spans();
            answer.message = response.partial_success().error_message();
        }
        return answer;
    }
    const auto json = nlohmann::json::parse(body, nullptr, false);
    const auto partial = json.is_object() ? json.find("partialSuccess") : json.end();
    if (partial == json.end() || !partial->is_object())
        return answer;
    const auto rejected = partial->find("rejectedSpans"); // 64 bits, so a string, but not with all
    if (rejected != partial->end() && rejected->is_number_integer())
        answer.rejected = rejected->get<std::int64_t>();
    else if (rejected != partial->end() && rejected->is_string()) {
        const Value value = ToValue(rejected->get_ref<const std::string&>());
        if (const auto* number = std::get_if<std::int64_t>(&value))
            answer.rejected = *number;
    }
    const auto message = partial->find("errorMessage");
    if (message != partial->end() && message->is_string())
        answer.message = message->get<std::string>();
    return answer;
}

void WriteOtlp(const Model& model, const std::vector<RunIdentity>& identities,
               const std::string& path) {
    constexpr std::size_t longestLine = 1 << 20;
    Output output(path);
    JsonEncoder encoder;
    EncodedSpans spans;
    for (std::size_t i = 0; i < model.runs.size(); ++i) {
        const Run& run = model.runs[i];
        const std::size_t room =
            longestLine - std::min(longestLine, encoder.PerRequest(identities[i]));
        const auto writeLine = [&](std::size_t count) {
            output.Text() += encoder.MakeRequest(identities[i], spans, 0, count);
            output.Text() += '\n';
            output.Flow();
        };
        ForEachSpan(model, run, SpanIds(identities[i]), [&](const Span& span) {
            const std::size_t begin = spans.bytes.size();
            encoder.Add(span, run.wallOffset, spans);
            if (spans.Count() > 1 && spans.bytes.size() + spans.Count() > room) {
                writeLine(spans.Count() - 1);
                spans.bytes.erase(0, begin);
                spans.ends.assign(1, spans.bytes.size());
            }
        });
        if (spans.Count() > 0)
            writeLine(spans.Count());
        spans.Clear();
    }
    output.Finish();
}

} // namespace Metrics::tools
