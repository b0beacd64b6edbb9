#ifndef METRICS_TESTS_TRANSCRIPT_H
#define METRICS_TESTS_TRANSCRIPT_H

#include <metrics/Metrics.h>

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>
#include <utility>

namespace Metrics::Testing {

constexpr unsigned int forever = 60'000; // ms; only a test that fails waits that long
constexpr std::uint64_t everyBit = ~std::uint64_t{0};

inline MetricsManager& Manager() {
    return *MetricsManager::GetInstance();
}

inline void Flush() {
    Manager().WaitUntilWritesFlushed(forever);
}

/// Emits an event that carries two numbers. @return it.
inline auto Send(std::uint64_t first, std::uint64_t second = 0, std::uint64_t bits = 0,
                 MetricsEventType type = MetricsEventType::Custom) {
    const auto event = MakeMetricsEvent();
    event->eventType = type;
    event->bits = bits;
    event->param1 = first;
    event->param2 = second;
    Manager().EmitEvent(event);
    return event;
}

/// A consumer made of a function.
class Consumer final : public IMetricsListener {
public:
    using Call = std::function<void(const MetricsEvent&)>;
    explicit Consumer(Call call) : m_call(std::move(call)) {}
    void OnMetricsEvent(const MetricsEvent& event) override { m_call(event); }

private:
    Call m_call;
};

/// Switches the library on, with every category, and registers the function. A test to whose
/// variables it refers ends with Disable, since it would be called once more at exit.
inline MetricsListenerPtr Consume(bool synchronous, Consumer::Call call) {
    Manager().Enable();
    Manager().SetBitsAbsolute(everyBit);
    const MetricsListenerPtr consumer = korsys::MakeRefCnt<Consumer>(std::move(call));
    EXPECT_TRUE(Manager().AddConsumer(consumer, everyBit, synchronous));
    return consumer;
}

/// Writes events down as lines: type, source, context, values, and the bits unless they are 0, as
/// in `ScopeOpened s1 in 2: "cxt", 0 &10000`. Scopes are named s1, s2 and so on as they open; a
/// right 'pid' shows as pid, a right 'tid' as tid.
class Transcript {
public:
    /// The lines since the last call, behind a line feed: raw literals begin with one.
    std::string Take() { return '\n' + std::exchange(m_lines, std::ostringstream()).str(); }

    void Write(const MetricsEvent& event) {
        constexpr const char* types[] = {"?",           "Shutdown", "Created",
                                         "Opened",      "Closed",   "ScopeOpened",
                                         "ScopeClosed", "Custom",   "Attribute"};
        if (event.eventType == MetricsEventType::ScopeOpened)
            m_scopes[event.sourceId] = 's' + std::to_string(++m_scopeCount);
        const auto scope = m_scopes.find(event.sourceId);
        const std::string first = Text(event.param1), second = Text(event.param2);
        const bool isPid = first == "\"'pid'\"" && second == std::to_string(getpid());
        const bool isTid = first == "\"'tid'\"" && second == std::to_string(gettid());
        m_lines << types[static_cast<int>(event.eventType)] << ' '
                << (scope == m_scopes.end() ? std::to_string(event.sourceId) : scope->second)
                << " in " << event.contextId << ": " << first << ", "
                << (isPid   ? "pid"
                    : isTid ? "tid"
                            : second);
        if (event.bits != 0)
            m_lines << " &" << std::hex << event.bits << std::dec;
        m_lines << '\n';
    }

private:
    static std::string Text(const MetricsValue& value) {
        if (value.kind == MetricsValue::Kind::String)
            return value.text == nullptr ? "null" : '"' + *value.text + '"';
        if (value.kind == MetricsValue::Kind::Boolean)
            return value.boolean ? "true" : "false";
        return value.kind == MetricsValue::Kind::Double ? std::to_string(value.number)
                                                        : std::to_string(value.integer);
    }

    std::ostringstream m_lines;
    std::map<std::uint64_t, std::string> m_scopes; // by address
    int m_scopeCount = 0;
};

/// Has a transcript written by a synchronous consumer, for tests that emit on one thread at a time.
inline std::shared_ptr<Transcript> Record() {
    const auto transcript = std::make_shared<Transcript>();
    Consume(true, [transcript](const MetricsEvent& event) { transcript->Write(event); });
    return transcript;
}

/// A thread that is joined in the end, and can be seen to block.
class Thread {
public:
    template <class Body>
    explicit Thread(Body body) : m_thread([this, body] { (m_id = gettid(), body()); }) {}
    ~Thread() { m_thread.join(); }

    /// Returns once the thread sleeps in a wait, or has ended.
    void UntilBlocked() const {
        std::string id, name;
        for (char state = 'R'; state != 'S'; std::this_thread::yield()) {
            std::ifstream stat("/proc/self/task/" + std::to_string(m_id) + "/stat");
            if (!(stat >> id >> name >> state) && m_id != 0)
                return;
        }
    }

private:
    std::atomic<pid_t> m_id{0};
    std::thread m_thread;
};

} // namespace Metrics::Testing

#endif // METRICS_TESTS_TRANSCRIPT_H
