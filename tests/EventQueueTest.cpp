// The queues, their pool of chunks and the merge by themselves: one thread plays all emitters and
// the delivery thread, in an order drawn from a seed, beside a model of plain vectors.

#include "DeliveredEvent.h"
#include "Merge.h"

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <deque>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace Metrics::detail {

namespace {

/// A value as it is emitted, and what is to come out of it.
struct Value {
    enum class Kind { Integer, Boolean, Double, Text, TextOnPage, Object };
    Kind kind = Kind::Integer;
    std::int64_t integer = 0;
    std::string text;
    MetricsValue object;

    void ExpectIn(const MetricsValue& value) const {
        const bool isText = kind == Kind::Text || kind == Kind::TextOnPage;
        const MetricsValue wanted = isText                  ? MetricsValue(text)
                                    : kind == Kind::Boolean ? MetricsValue(integer != 0)
                                    : kind == Kind::Double  ? MetricsValue(double(integer))
                                    : kind == Kind::Integer ? MetricsValue(integer)
                                                            : object;
        ASSERT_EQ(value.kind, wanted.kind);
        ASSERT_EQ(value.integer, wanted.integer);
        ASSERT_EQ(value.extra, wanted.extra);
        ASSERT_EQ(value.text == nullptr, wanted.text == nullptr);
        if (wanted.text != nullptr) {
            ASSERT_EQ(*value.text, *wanted.text);
        }
    }
};

struct Event {
    Stamp stamp{};
    EventHead head{};
    std::array<Value, 2> values;
    std::shared_ptr<MetricsEvent> shared; // in place of all of these
    std::uint64_t returnedBefore = 0;     // emits that had returned when it was stamped
    std::uint64_t number = 0;             // of its own emit, once that has returned

    std::uint64_t Order() const { return stamp.ticket != 0 ? stamp.ticket : stamp.ticks; }
};

/// One emitter: what it has stamped and not appended, and what it has appended.
struct Emitter {
    EventQueue queue;
    std::vector<Event> stamped; // the last one is appended first: a consumer's emit comes inside
    std::deque<Event> appended;
    bool isStopped = false; // inside of an append
};

class Simulation {
public:
    explicit Simulation(unsigned int seed)
        : m_random(seed),
          m_hasTickets(seed % 2 == 1),
          m_emitters(1 + Draw(5)),
          m_deliveryRate(2 + Draw(200)) {
        s_current = this;
        struct sigaction action {};
        action.sa_sigaction = [](int, siginfo_t* info, void*) { s_current->OnFault(*info); };
        action.sa_flags = SA_NODEFER | SA_SIGINFO;
        sigaction(SIGSEGV, &action, &m_before);
    }
    ~Simulation() {
        sigaction(SIGSEGV, &m_before, nullptr);
        munmap(m_page, pageSize);
    }
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    void Run() {
        for (int step = 0; step < 400 && !testing::Test::HasFailure(); ++step)
            Step();
        m_isEnding = true;
        for (Emitter& emitter : m_emitters)
            while (!emitter.stamped.empty())
                Append(emitter);
        Deliver();
        s_emptied.PutBack();
        for (const auto& [value, text] : m_kept)
            EXPECT_EQ(*value.text, text) << "a kept text was used for another event";
        m_kept.clear();

        std::size_t chunks = 0;
        for (Emitter& emitter : m_emitters) {
            EXPECT_TRUE(emitter.queue.IsEmpty() && emitter.appended.empty());
            chunks += emitter.queue.Published() != nullptr ? 1 : 0;
        }
        EXPECT_EQ(s_chunks.InUse(), chunks) << "one for each queue, and the others in the pool";
        for (Emitter& emitter : m_emitters)
            emitter.queue.Release();
        EXPECT_EQ(s_chunks.InUse(), 0u);
        EXPECT_EQ(m_objects, 0) << "objects that were neither delivered nor destroyed";
        s_chunks.Unmap();
    }

    static int Stops() noexcept { return s_stops; }

private:
    unsigned int Draw(unsigned int below) { return static_cast<unsigned int>(m_random() % below); }
    bool OneIn(unsigned int chances) { return Draw(chances) == 0; }

    void Step() {
        if (OneIn(50))
            return OneIn(2) ? s_chunks.Trim(Draw(8)) : s_chunks.KeepWarm(Draw(8));
        if (!m_isDelivering && OneIn(m_deliveryRate))
            return Deliver();
        Emitter& emitter = m_emitters[Draw(static_cast<unsigned int>(m_emitters.size()))];
        if (emitter.isStopped)
            return;
        if (emitter.stamped.empty() && OneIn(30) && emitter.appended.empty() && !m_isDelivering)
            emitter.queue.Release(); // its thread has ended, and another one gets the queue
        else if (emitter.stamped.empty() || (emitter.stamped.size() < 3 && OneIn(8)))
            emitter.stamped.push_back(MakeEvent());
        else
            Append(emitter);
    }

    // Emitters ---------------------------------------------------------------------------------

    Event MakeEvent() {
        Event event;
        if (m_hasTickets)
            m_clock += OneIn(20) ? 4'000'000 : 0; // many events in one tick
        else
            m_clock += 1 + Draw(100);
        event.stamp = {m_clock, 1'700'000'000'123'456'789 + m_clock,
                       m_hasTickets ? ++m_tickets : 0};
        event.returnedBefore = m_returned;
        event.head = {static_cast<MetricsEventType>(2 + Draw(7)), m_random(), m_random(),
                      m_random()};
        for (Value& value : event.values)
            FillIn(value);
        if (OneIn(12)) {
            ++m_objects;
            event.shared = {new MetricsEvent, [this](const MetricsEvent* shared) {
                                --m_objects;
                                delete shared;
                            }};
        }
        return event;
    }

    void FillIn(Value& value) {
        using Kind = Value::Kind;
        value.integer = static_cast<std::int64_t>(m_random());
        const unsigned int drawn = Draw(20);
        if (drawn == 0) {
            value.kind = Kind::Boolean;
            value.integer &= 1;
        } else if (drawn == 1) {
            value.kind = Kind::Double;
        } else if (drawn == 2) { // with a text, an `extra`, both or neither
            value.kind = Kind::Object;
            value.object = OneIn(2) ? MetricsValue(value.integer) : MetricsValue("handed over");
            if (OneIn(2)) {
                ++m_objects;
                value.object.extra = {this, [this](const void*) { --m_objects; }};
            }
        } else if (drawn < 8) {
            const std::array<unsigned int, 10> lengths{0,  1,   3,   4,        8,
                                                       17, 255, 256, Draw(20), Draw(257)};
            value.kind = OneIn(3) ? Kind::TextOnPage : Kind::Text;
            value.text.resize(lengths[Draw(10)]);
            for (char& character : value.text)
                character = static_cast<char>(m_random());
        }
    }

    void Append(Emitter& emitter) {
        Event event = std::move(emitter.stamped.back());
        emitter.stamped.pop_back();
        emitter.isStopped = true;
        if (event.shared != nullptr) {
            emitter.queue.Append(event.stamp, std::shared_ptr<MetricsEvent>(event.shared), {});
        } else {
            const bool hadPage = m_isPageTaken;
            std::array<MetricsValue, 2> objects{event.values[0].object, event.values[1].object};
            const Argument first = ArgumentOf(event.values[0], objects[0]);
            const Argument second = ArgumentOf(event.values[1], objects[1]);
            emitter.queue.Append(event.stamp, event.head, first, second);
            m_isPageTaken = hadPage;
        }
        emitter.isStopped = false;
        event.number = ++m_returned;
        emitter.appended.push_back(std::move(event));
    }

    Argument ArgumentOf(const Value& value, MetricsValue& object) {
        switch (value.kind) {
        case Value::Kind::Boolean:
            return Argument(value.integer != 0);
        case Value::Kind::Double:
            return Argument(static_cast<double>(value.integer));
        case Value::Kind::Object:
            return Argument(std::move(object));
        case Value::Kind::TextOnPage:
            if (!m_isPageTaken && !value.text.empty())
                return Argument(PutOnPage(value.text));
            [[fallthrough]];
        case Value::Kind::Text:
            return Argument(value.text);
        case Value::Kind::Integer:
            break;
        }
        return Argument(value.integer);
    }

    // An emitter is stopped inside of an append: it reads a text from a page that it may not read.
    // There the others and the delivery go on, before the page is opened.

    std::string_view PutOnPage(const std::string& text) {
        m_isPageTaken = true;
        text.copy(m_page, text.size());
        mprotect(m_page, pageSize, PROT_NONE);
        return {m_page, text.size()};
    }

    void OnFault(const siginfo_t& info) {
        if (info.si_addr < m_page || info.si_addr >= m_page + pageSize) {
            sigaction(SIGSEGV, &m_before, nullptr); // a fault as any other
            return;
        }
        ++s_stops;
        for (unsigned int steps = m_isEnding ? 0 : Draw(60); steps > 0; --steps)
            Step();
        mprotect(m_page, pageSize, PROT_READ | PROT_WRITE);
    }

    // Delivery ---------------------------------------------------------------------------------

    void Deliver() {
        m_isDelivering = true;
        m_merge.Begin(m_hasTickets ? m_tickets : m_clock);
        const std::uint64_t cut = m_hasTickets ? m_tickets : m_clock;
        std::vector<std::size_t> seen;
        for (Emitter& emitter : m_emitters) {
            GoOn();
            m_merge.Add(emitter.queue, static_cast<pid_t>(seen.size() + 1));
            seen.push_back(emitter.appended.size());
        }
        if (OneIn(6))
            Discard(cut, seen);
        else
            DeliverMerged(PlanOf(cut, seen));
        m_isDelivering = false;
    }

    /// The others go on while the delivery is at it.
    void GoOn() {
        for (unsigned int steps = m_isEnding || !OneIn(4) ? 0 : Draw(8); steps > 0; --steps)
            Step();
    }

    /// Whose events come one after the other: a queue's own order, and otherwise that of stamps.
    std::vector<std::size_t> PlanOf(std::uint64_t cut, const std::vector<std::size_t>& seen) {
        std::vector<std::pair<std::uint64_t, std::size_t>> plan;
        for (std::size_t e = 0; e < seen.size(); ++e) {
            std::uint64_t latest = 0;
            for (std::size_t i = 0; i < seen[e]; ++i) {
                latest = std::max(latest, m_emitters[e].appended[i].Order());
                if (latest > cut)
                    break;
                plan.emplace_back(latest, e);
            }
        }
        std::stable_sort(plan.begin(), plan.end());
        std::vector<std::size_t> emitters;
        for (const auto& [order, emitter] : plan)
            emitters.push_back(emitter);
        return emitters;
    }

    void DeliverMerged(const std::vector<std::size_t>& plan) {
        std::size_t delivered = 0;
        bool isComplete = true;
        m_merge.Order();
        try {
            while (Record* const record = m_merge.Front()) {
                isComplete = false;
                if (!m_isEnding && OneIn(60))
                    throw std::bad_alloc();
                if (!m_isEnding && OneIn(60))
                    break;
                EXPECT_LT(delivered, plan.size()) << "what is behind the cut";
                if (testing::Test::HasFailure())
                    break;
                EXPECT_EQ(static_cast<std::size_t>(m_merge.Emitter()), plan[delivered] + 1);
                std::deque<Event>& appended = m_emitters[plan[delivered]].appended;
                const MetricsEvent& made = m_event.Make(*record, m_merge.Queue());
                m_merge.Pop();
                Expect(appended.front(), made);
                GoOn();
                m_event.Clear();
                appended.pop_front();
                ++delivered;
                isComplete = true;
            }
        } catch (const std::bad_alloc&) {}
        if (isComplete) {
            EXPECT_EQ(delivered, plan.size());
        }
    }

    void Expect(const Event& event, const MetricsEvent& delivered) {
        for (const Emitter& other : m_emitters)
            EXPECT_TRUE(other.appended.empty() ||
                        other.appended.front().number > event.returnedBefore)
                << "overtook an event whose emit had returned before";
        if (event.shared != nullptr) {
            EXPECT_EQ(&delivered, event.shared.get());
            return;
        }
        EXPECT_EQ(delivered.eventType, event.head.type);
        EXPECT_EQ(delivered.sourceId, event.head.sourceId);
        EXPECT_EQ(delivered.contextId, event.head.contextId);
        EXPECT_EQ(delivered.bits, event.head.bits);
        EXPECT_EQ(delivered.timestamp, UpTimeAt(event.stamp.ticks));
        EXPECT_EQ(delivered.unixSeconds * 1'000'000 + delivered.unixMicroseconds,
                  event.stamp.wall / 1000);
        event.values[0].ExpectIn(delivered.param1);
        event.values[1].ExpectIn(delivered.param2);
        if (delivered.param1.text != nullptr && OneIn(4))
            m_kept.emplace_back(delivered.param1, *delivered.param1.text);
    }

    void Discard(std::uint64_t cut, const std::vector<std::size_t>& seen) {
        std::size_t dropped = 0; // queues
        for (std::size_t e = 0; e < seen.size(); ++e) {
            std::deque<Event>& appended = m_emitters[e].appended;
            if (seen[e] == 0 || appended.front().Order() > cut)
                continue;
            ++dropped;
            appended.erase(appended.begin(),
                           appended.begin() + static_cast<std::ptrdiff_t>(seen[e]));
        }
        EXPECT_EQ(m_merge.Discard(), dropped);
    }

    static constexpr std::size_t pageSize = 4096;
    static inline Simulation* s_current = nullptr;
    static inline int s_stops = 0;

    std::mt19937_64 m_random;
    const bool m_hasTickets; // and a clock that stands still between its ticks
    std::uint64_t m_clock = StampClock::Ticks();
    std::uint64_t m_tickets = 0;

    std::deque<Emitter> m_emitters;
    std::uint64_t m_returned = 0; // emits
    int m_objects = 0;            // alive

    const unsigned int m_deliveryRate;
    bool m_isDelivering = false;
    bool m_isEnding = false;
    Merge m_merge;
    DeliveredEvent m_event;
    std::vector<std::pair<MetricsValue, std::string>> m_kept;

    char* const m_page = static_cast<char*>(
        mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    bool m_isPageTaken = false;
    struct sigaction m_before {};
};

} // namespace

TEST(EventQueue, AgreesWithItsModelInManyInterleavings) {
    constexpr unsigned int seeds = 4000 * METRICS_TEST_SCALE / 100;
    for (unsigned int seed = 0; seed < seeds && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Simulation(seed).Run();
    }
    EXPECT_GT(Simulation::Stops(), 0) << "no emitter was ever stopped inside of an append";
}

/// On two threads: the ledger never shows less appended than taken.
TEST(EventQueue, CountsARecordBeforeItCanBeTaken) {
    constexpr std::uint64_t records = 20'000 * std::uint64_t{METRICS_TEST_SCALE};
    EventQueue queue;
    std::jthread owner([&queue] {
        for (std::uint64_t i = 0; i < records; ++i)
            EXPECT_TRUE(queue.Append({i, i, 0}, {MetricsEventType::Custom, 0, 0, 0},
                                     Argument(std::int64_t{0}), Argument()));
    });
    std::uint64_t taken = 0;
    std::uint64_t early = 0;
    while (taken != records) {
        for (const std::byte* const end = queue.Published(); queue.Front(end) != nullptr; ++taken)
            queue.Pop();
        early += queue.Appended() < taken ? 1 : 0;
    }
    EXPECT_EQ(early, 0u);
    EXPECT_EQ(queue.Taken(), records);
    queue.GiveBack();
    queue.Release();
}

} // namespace Metrics::detail
