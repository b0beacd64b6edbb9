// A plug-in as others build them: with -fPIC -shared and nothing else.

#include "../support/Exercise.h"

#include <thread>

using namespace Metrics;
using namespace Metrics::test;

namespace {

MetricsRawClient s_client; // closed when the plug-in is unloaded
std::atomic<bool> s_gateIsOpen{false};
std::atomic<int> s_arrived{0};
const char* const s_visitor = "from a visitor, and too long for the inside";

/// Counts the two events of each UseEverything that carry its text.
MetricsListenerPtr CountTexts(std::atomic<int>& count, const std::string& text) {
    return MakeListener([&count, text](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Custom && event.param1.text != nullptr)
            count += *event.param1.text == text;
    });
}

/// Emits 80 texts from two threads, with consumers that are taken back.
bool Use(const std::string& text) {
    std::atomic<int> seen{0};
    std::atomic<int> later{0};
    const auto synchronous = CountTexts(seen, text);
    const auto queued = CountTexts(later, text);
    Manager().AddConsumer(synchronous, everyBit, true);
    Manager().AddConsumer(queued, everyBit, false);
    const auto work = [&text] {
        for (int i = 0; i < 20; ++i)
            UseEverything(text);
    };
    std::thread other(work);
    work();
    other.join();
    return Manager().RemoveConsumer(synchronous) && Manager().RemoveConsumer(queued) && seen == 80;
}

} // namespace

extern "C" {

/// A whole life; what it leaves open is closed by being unloaded.
bool Live(const char* file, bool shutDown, std::atomic<int>* delivered) {
    Start().AddConsumer(CountTexts(*delivered, "plugged in"), everyBit, false);
    const bool good = Open(s_client, file) == (*file != 0) && Use("plugged in");
    if (shutDown)
        MetricsManager::ShutdownAndFreeInstance();
    return good;
}

/// The half that stays: holds the delivery back until Release.
void Reside() {
    Manager().SetThreadInitFunction([] {
        while (!s_gateIsOpen)
            std::this_thread::yield();
    });
    Start().AddConsumer(CountTexts(s_arrived, s_visitor), everyBit, false);
}
int Release() {
    s_gateIsOpen = true;
    Flush();
    return s_arrived;
}

bool Visit() {
    return Use(s_visitor);
}

/// Leaves the delivery thread inside of a write, in a pipe that nobody reads from.
/// @return the client, which must not be closed, as that would wait for the write.
void* GetStuck(const char* pipe) {
    Start();
    const auto client = new MetricsRawClient;
    Open(*client, pipe);
    Send(std::string(1 << 20, 'x'));
    return Manager().Disable() ? nullptr : client;
}
}
