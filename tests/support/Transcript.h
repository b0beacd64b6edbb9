#ifndef METRICS_TESTS_SUPPORT_TRANSCRIPT_H
#define METRICS_TESTS_SUPPORT_TRANSCRIPT_H

#include "Exercise.h"

#include <unistd.h>

#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace Metrics::test {

inline std::string NameOf(MetricsEventType type) {
    constexpr const char* names[] = {"?",           "Shutdown",    "Created", "Opened",   "Closed",
                                     "ScopeOpened", "ScopeClosed", "Custom",  "Attribute"};
    return names[static_cast<int>(type)];
}

inline std::string TextOf(const MetricsValue& value) {
    switch (value.kind) {
    case MetricsValue::Kind::String:
        return '"' + *value.text + '"';
    case MetricsValue::Kind::Boolean:
        return value.boolean ? "true" : "false";
    case MetricsValue::Kind::Double:
        return std::to_string(value.number);
    default:
        return std::to_string(value.integer);
    }
}

/// Writes events down, so that a test can put what a call tells beside the call. Lines are such as
///
///     ScopeOpened s1 in 2: "cxt", 0 &10000
///
/// with the bits unless they are 0. Each opening of a scope gives it the next name: s1, s2 and so
/// on; the ids of the process and of the emitting thread show as pid and tid.
class Transcript {
public:
    /// Starts the library and listens.
    explicit Transcript(bool synchronous = true) : m_notes(std::make_shared<Notes>()) {
        Consume(synchronous, [notes = m_notes](const MetricsEvent& event) { notes->Add(event); });
    }

    /// What was told since the last call.
    std::string Next() const {
        const std::lock_guard lock(m_notes->mutex);
        return std::exchange(m_notes->lines, "");
    }

private:
    struct Notes {
        std::mutex mutex;
        std::string lines;
        std::map<std::uint64_t, int> scopes;
        int opened = 0;

        void Add(const MetricsEvent& event) {
            const std::lock_guard lock(mutex);
            if (event.eventType == MetricsEventType::ScopeOpened)
                scopes[event.sourceId] = ++opened;
            const auto scope = scopes.find(event.sourceId);
            std::string second = TextOf(event.param2);
            if (second == std::to_string(getpid()))
                second = "pid";
            else if (second == std::to_string(gettid()))
                second = "tid";
            std::ostringstream line;
            line << NameOf(event.eventType) << ' ';
            if (scope != scopes.end())
                line << 's' << scope->second;
            else
                line << event.sourceId;
            line << " in " << event.contextId << ": " << TextOf(event.param1) << ", " << second;
            if (event.bits != 0)
                line << " &" << std::hex << event.bits;
            lines += line.str() + '\n';
        }
    };

    std::shared_ptr<Notes> m_notes;
};

/// A value that must not be built.
struct NeverBuilt {
    operator MetricsValue() const { throw std::logic_error("built though nothing is recorded"); }
};

} // namespace Metrics::test

#endif // METRICS_TESTS_SUPPORT_TRANSCRIPT_H
