#include "support/HeldStream.h"
#include "support/Process.h"

#include <korsys/TEvent.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

namespace Metrics::test {

/// A handler that keeps what it was told.
class Told {
public:
    explicit Told(unsigned int lagMilliseconds = 0) {
        Manager().SetErrorHandler([this](const MetricsError& error) { Note(error); },
                                  lagMilliseconds);
    }
    void Note(const MetricsError& error) {
        const std::lock_guard lock(m_lock);
        m_errors.push_back(error);
        m_times.push_back(Clock::now());
        std::array<char, 16> name{};
        pthread_getname_np(pthread_self(), name.data(), name.size());
        m_byDelivery = m_byDelivery && name.data() == std::string("metrics");
    }
    std::vector<MetricsError> Of(Reason reason) const {
        const std::lock_guard lock(m_lock);
        std::vector<MetricsError> errors;
        for (const MetricsError& error : m_errors)
            if (error.reason == reason)
                errors.push_back(error);
        return errors;
    }
    /// Waits for the first one. @return it.
    MetricsError First(Reason reason) const {
        EXPECT_TRUE(Poll([&] { return !Of(reason).empty(); })) << static_cast<int>(reason);
        const auto errors = Of(reason);
        return errors.empty() ? MetricsError() : errors.front();
    }
    std::vector<Clock::time_point> Times() const {
        const std::lock_guard lock(m_lock);
        return m_times;
    }
    bool ByDelivery() const {
        const std::lock_guard lock(m_lock);
        return m_byDelivery;
    }

private:
    mutable std::mutex m_lock;
    std::vector<MetricsError> m_errors;
    std::vector<Clock::time_point> m_times;
    bool m_byDelivery = true;
};

TEST(ErrorHandler, IsToldOfEachReason) {
    Told told(1);
    Manager().SetQueueLimit(16384, MetricsQueuePolicy::DropNewest);
    std::optional<HeldStream> stream(std::in_place);
    const Session session;
    Register(false, {"throws", 2, 0},
             [](const MetricsEvent&) { throw std::runtime_error("what it said"); });
    EmitTooMany();
    const std::uint64_t lost = Statistics().lostToLimit;
    const auto throwing =
        Consume(true, [](const MetricsEvent&) { throw std::runtime_error("seen"); });
    EXPECT_THROW(AttributeImpl(0, 0, 0), std::runtime_error);
    EXPECT_TRUE(Manager().RemoveConsumer(throwing));
    const auto start = Clock::now();
    EXPECT_TRUE(Poll([&] { return SecondsSince(start) > 0.002; })); // the lag
    stream->Release();

    EXPECT_EQ(told.First(Reason::LostToLimit).count, lost);
    EXPECT_EQ(told.First(Reason::LostToException).count, 1u);
    EXPECT_GT(told.First(Reason::DeliveryLags).nanoseconds, 1'000'000u);
    EXPECT_EQ(told.First(Reason::ConsumerSetAside).consumer, "throws");
    const MetricsError thrown = told.First(Reason::ConsumerThrew);
    EXPECT_EQ(thrown.consumer, "throws");
    EXPECT_GE(thrown.count, 1u);
    try {
        std::rethrow_exception(thrown.exception);
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "what it said");
    }
    Flush();
    const std::string link = testing::TempDir() + "full" + std::to_string(getpid());
    ASSERT_EQ(symlink("/dev/full", link.c_str()), 0);
    MetricsRawClient client, other;
    ASSERT_TRUE(Open(client, "/dev/full") && Open(other, link));
    unlink(link.c_str());
    AttributeImpl(0, 0, 0);
    Flush();
    EXPECT_EQ(told.First(Reason::WriteFailed).path, "/dev/full");
    EXPECT_TRUE(Poll([&] { return told.Of(Reason::WriteFailed).size() == 2; }));
    EXPECT_EQ(told.Of(Reason::WriteFailed).back().path, link);
    EXPECT_EQ(told.First(Reason::WriteFailed).error, ENOSPC);
    EXPECT_TRUE(told.ByDelivery());
    Flush();
    EXPECT_TRUE(Manager().Disable());
}

TEST(ErrorHandler, IsToldOncePerSecondAndOfTheRestAtTheEnd) {
    Told told;
    Register(false, {"throws", 0, 0}, [](const MetricsEvent&) { throw 1; });
    std::uint64_t emitted = 0;
    const auto start = Clock::now();
    while (told.Of(Reason::ConsumerThrew).size() < 2 && SecondsSince(start) < 20) {
        AttributeImpl(0, 0, 0);
        ++emitted;
        Flush();
    }
    AttributeImpl(0, 0, 0);
    ++emitted;
    EXPECT_TRUE(Manager().Disable());
    const auto errors = told.Of(Reason::ConsumerThrew);
    const auto times = told.Times();
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_GE(std::chrono::duration<double>(times[1] - times[0]).count(), 0.99);
    EXPECT_EQ(errors[0].count + errors[1].count + errors[2].count, emitted);
}

TEST(ErrorHandler, IsToldOfWhatIsLostBehindTheEnd) {
    Told told;
    HeldStream stream;
    Consume(false, [](const MetricsEvent& event) {
        if (event.param1.integer == 5)
            EmitTooMany(); // behind the end
    });
    AttributeImpl(5, 0, 0);
    Send(0, 0, 0, MetricsEventType::Shutdown);
    stream.Release();
    EXPECT_EQ(told.First(Reason::LostToShutdown).count, std::uint64_t(tooMany));
    EXPECT_TRUE(Manager().Shutdown(forever).ended);
}

TEST(ErrorHandler, MayThrowReplaceItselfAndIsReleased) {
    std::weak_ptr<int> firstHeld, secondHeld;
    std::atomic<int> first{0}, second{0};
    Consume(false, [](const MetricsEvent&) { throw std::runtime_error("told"); });
    {
        const auto ofFirst = std::make_shared<int>(), ofSecond = std::make_shared<int>();
        firstHeld = ofFirst;
        secondHeld = ofSecond;
        Manager().SetErrorHandler([&first, &second, ofFirst, secondHeld](const MetricsError&) {
            Manager().SetErrorHandler([&second, held = secondHeld.lock()](const MetricsError&) {
                ++second;
                throw std::runtime_error("dropped");
            });
            EXPECT_EQ(ofFirst.use_count(), 2) << "the caller's and its own, during the call";
            ++first;
            throw std::runtime_error("dropped");
        });
        AttributeImpl(0, 0, 0);
        EXPECT_TRUE(Poll([&] { return first == 1; }));
    }
    EXPECT_TRUE(Poll([&] { return firstHeld.expired(); }));
    EXPECT_FALSE(secondHeld.expired());
    AttributeImpl(0, 0, 0);
    EXPECT_TRUE(Poll([&] { return second == 1; }));
    AttributeImpl(0, 0, 0); // told at the end
    EXPECT_TRUE(Manager().Disable());
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 2);
    EXPECT_TRUE(secondHeld.expired()) << "it goes with the delivery";
    auto late = std::make_shared<int>();
    Manager().SetErrorHandler([late](const MetricsError&) {});
    EXPECT_EQ(late.use_count(), 1) << "nobody would ever let go of it";
}

/// The delivery thread, which calls it, does not wait for itself.
TEST(ErrorHandler, MaySetABound) {
    double shortest = 1e9;
    korsys::TEvent isTold{false};
    const Session session;
    Manager().SetErrorHandler([&](const MetricsError&) {
        for (int i = 0; i < 5; ++i) {
            const auto start = Clock::now();
            Manager().SetQueueLimit(1 << 20, MetricsQueuePolicy::DropOldest);
            shortest = std::min(shortest, SecondsSince(start));
        }
        isTold.Signal();
    });
    Consume(false, [](const MetricsEvent&) { throw std::runtime_error("told"); });
    AttributeImpl(0, 0, 0);
    EXPECT_TRUE(isTold.Wait(forever));
    EXPECT_LT(shortest, 0.05);
    Manager().SetErrorHandler(nullptr);
}

/// Whoever takes a handler away may free what it uses.
TEST(ErrorHandler, IsNotCalledAnyMoreOnceItWasTakenAway) {
    const Session session;
    Consume(false, [](const MetricsEvent&) { throw 1; });
    for (int i = 0; i < Repetitions(200); ++i) {
        korsys::TEvent entered(false);
        const auto isTakenAway = std::make_shared<std::atomic<bool>>(false);
        Manager().SetErrorHandler([isTakenAway, &entered](const MetricsError&) {
            entered.Signal();
            for (const auto start = Clock::now(); SecondsSince(start) < 0.001;)
                EXPECT_FALSE(*isTakenAway);
        });
        AttributeImpl(0, 0, 0);
        Manager().WaitUntilWritesFlushed(0); // wakes the delivery
        EXPECT_TRUE(entered.Wait(forever));
        Manager().SetErrorHandler(nullptr);
        *isTakenAway = true;
    }
}

TEST(ErrorHandler, HearsOfNothingThatWentWell) {
    Told told(forever);
    const Session session;
    Consume(false, [](const MetricsEvent&) {});
    EmitTooMany();
    EXPECT_TRUE(Manager().Shutdown(forever).ended);
    EXPECT_TRUE(told.Times().empty());
}

} // namespace Metrics::test
