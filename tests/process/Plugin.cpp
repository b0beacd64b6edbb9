// A plug-in as others build them: with -fPIC -shared and nothing else.

#include "Exercise.h"

#include <chrono>
#include <thread>

using namespace Metrics;
using namespace Metrics::test;

namespace {

MetricsRawClient s_client; // closed when the plug-in is unloaded
std::atomic<bool> s_gateIsOpen{false};
std::atomic<int> s_arrived{0};

/// Counts the two events of each UseEverything that carry its text.
MetricsListenerPtr CountTexts(std::atomic<int>& count, const std::string& text) {
    return MakeListener([&count, text](const MetricsEvent& event) {
        if (event.eventType == MetricsEventType::Custom && event.param1.text != nullptr)
            count += *event.param1.text == text;
    });
}

void UseOnTwoThreads(const char* text) {
    const auto work = [text] {
        for (int i = 0; i < 20; ++i)
            UseEverything(text);
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
}

} // namespace

extern "C" {

/// A whole life; what it leaves open is closed by being unloaded. Delivers 80 texts.
bool Live(const char* file, bool shutDown, std::atomic<int>* delivered) {
    Start();
    const std::string mnemonics = MetricsBitsUtils::MetricsBitsToMnemonicList(MetricsBits::act);
    std::atomic<int> seen{0};
    const auto transient = CountTexts(seen, "plugged in");
    bool good = Manager().AddConsumer(CountTexts(*delivered, "plugged in"), ~0ull, false) &&
                Manager().AddConsumer(transient, ~0ull, true);
    s_client.SetOutputFileName(file);
    good = good && s_client.ProcessArgument("-set=" + mnemonics) && s_client.Open() == (*file != 0);
    UseOnTwoThreads("plugged in");
    good = good && Manager().RemoveConsumer(transient) && seen == 80 && AppUpTime() > 0;
    if (shutDown)
        MetricsManager::ShutdownAndFreeInstance();
    return good;
}

/// The half that stays: holds the delivery back until Release.
void Reside() {
    Manager().SetThreadInitFunction([] {
        while (!s_gateIsOpen)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    });
    Start().AddConsumer(CountTexts(s_arrived, "from a visitor, and too long for the inside"), ~0ull,
                        false);
}
int Release() {
    s_gateIsOpen = true;
    Manager().WaitUntilWritesFlushed(20000);
    return s_arrived;
}

/// The half that goes: emits 80 texts, and takes its own consumers back.
bool Visit() {
    std::atomic<int> seen{0};
    const auto both = CountTexts(seen, "from a visitor, and too long for the inside");
    bool good = Manager().AddConsumer(both, ~0ull, true) && Manager().AddConsumer(both, 0, false);
    UseOnTwoThreads("from a visitor, and too long for the inside");
    good = good && Manager().RemoveConsumer(both) && Manager().RemoveConsumer(both);
    return good && seen == 80;
}

/// Leaves the delivery thread inside of a write, in a pipe that nobody reads from.
/// @return the client, which must not be closed, as that would wait for the write.
void* GetStuck(const char* pipe) {
    Start();
    const auto client = new MetricsRawClient;
    client->SetOutputFileName(pipe);
    client->Open();
    EmitOne(std::string(1 << 20, 'x'));
    return Manager().Disable() ? nullptr : client;
}

/// Two threads that never stop.
void RunForEver() {
    Start();
    std::atomic<int> busy{0};
    for (int i = 0; i < 2; ++i)
        std::thread([&busy] {
            for (UseEverything("x"), ++busy;;)
                UseEverything("x");
        }).detach();
    while (busy != 2)
        std::this_thread::yield();
}

std::uint64_t NextId() {
    return Manager().GetNextContextId();
}
void* TheManager() {
    return &Manager();
}
}
