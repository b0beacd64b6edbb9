#include "Table.h"

#include "../analysis/SelfTime.h"
#include "Output.h"
#include "Text.h"

namespace Metrics::tools {

namespace {

/// Appends valid UTF-8 without NUL, at which engines cut a text or refuse a file.
void AppendText(std::string& out, std::string_view text) {
    for (;;) {
        const std::size_t nul = text.find('\0');
        AppendUtf8(out, text.substr(0, nul));
        if (nul == std::string_view::npos)
            return;
        out += "\xef\xbf\xbd"; // U+FFFD
        text.remove_prefix(nul + 1);
    }
}

/// Appends a field of RFC 4180.
void AppendField(std::string& out, std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        AppendText(out, text);
        return;
    }
    out += '"';
    while (!text.empty()) {
        const std::size_t quote = text.find('"');
        AppendText(out, text.substr(0, quote));
        if (quote == std::string_view::npos)
            break;
        out += "\"\"";
        text.remove_prefix(quote + 1);
    }
    out += '"';
}

const char* ToText(SpanKind kind) {
    switch (kind) {
    case SpanKind::Context:
        return "context";
    case SpanKind::Scope:
        return "scope";
    case SpanKind::Queue:
        break;
    }
    return "queue";
}

class Tables {
public:
    explicit Tables(const std::string& name)
        : m_spans(name + ".spans.csv"), m_events(name + ".events.csv") {
        m_spans.Text() = "run,host,pid,trace,id,parent,root,kind,label,thread,created,start,end,"
                         "self,attributes\n";
        m_events.Text() = "run,host,pid,trace,span,root,time,name,value\n";
    }

    void Add(const Model& model, const Run& run, const RunIdentity& identity) {
        m_run.clear();
        AppendField(m_run, run.path);
        m_run += ',';
        AppendField(m_run, identity.host);
        m_run += ',';
        if (identity.pid != noThread)
            AppendNumber(m_run, identity.pid);
        m_run += ',';
        const std::vector<std::uint64_t> self = SelfTimes(run);
        ForEachSpan(model, run, SpanIds(identity), [&](const Span& span) {
            AddSpan(run, span, self);
            AddEvents(run, span);
            m_spans.Flow();
            m_events.Flow();
        });
    }

    void Finish() {
        m_spans.Finish();
        m_events.Finish();
    }

private:
    static void AppendWall(std::string& out, const Run& run, std::uint64_t stamp, bool isKnown) {
        if (isKnown)
            AppendNumber(out, run.Wall(stamp));
        out += ',';
    }

    void AddSpan(const Run& run, const Span& span, const std::vector<std::uint64_t>& self) {
        std::string& out = m_spans.Text();
        out += m_run;
        AppendHex(out, span.trace.high);
        AppendHex(out, span.trace.low);
        out += ',';
        AppendHex(out, span.id);
        out += ',';
        if (span.parent != 0)
            AppendHex(out, span.parent);
        out += ',';
        AppendHex(out, span.root);
        out += ',';
        out += ToText(span.kind);
        out += ',';
        AppendField(out, span.label);
        out += ',';
        if (span.thread != noThread)
            AppendNumber(out, span.thread);
        out += ',';
        AppendWall(out, run, span.created, span.created != never);
        AppendWall(out, run, span.start, span.hasStart);
        AppendWall(out, run, span.end, span.hasEnd);
        if (span.hasStart && span.hasEnd)
            AppendNumber(out, span.kind == SpanKind::Scope ? self[span.piece]
                              : span.kind == SpanKind::Context
                                  ? SelfTime(run, run.contexts[span.piece])
                                  : Between(span.start, span.end));
        m_json.assign(1, '{');
        for (const SpanAttribute& attribute : span.attributes) {
            m_json += m_json.size() > 1 ? "," : "";
            AppendJsonString(m_json, attribute.name);
            m_json += ':';
            AppendJsonValue(m_json, ToValue(attribute.value));
        }
        m_json += '}';
        out += ',';
        AppendField(out, m_json);
        out += '\n';
    }

    void AddEvents(const Run& run, const Span& span) {
        for (const SpanEvent& event : span.events) {
            std::string& out = m_events.Text();
            out += m_run;
            AppendHex(out, span.trace.high);
            AppendHex(out, span.trace.low);
            out += ',';
            AppendHex(out, span.id);
            out += ',';
            AppendHex(out, span.root);
            out += ',';
            AppendWall(out, run, event.stamp, true);
            AppendField(out, event.name);
            out += ',';
            AppendField(out, event.value);
            out += '\n';
        }
    }

    Output m_spans;
    Output m_events;
    std::string m_run; ///< the fields that all rows of a run begin with
    std::string m_json;
};

} // namespace

void WriteTables(const Model& model, const std::vector<RunIdentity>& identities,
                 const std::string& name) {
    Tables tables(name);
    for (std::size_t i = 0; i < model.runs.size(); ++i)
        tables.Add(model, model.runs[i], identities[i]);
    tables.Finish();
}

} // namespace Metrics::tools
