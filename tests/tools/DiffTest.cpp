#include "Recording.h"

#include <analysis/Diff.h>
#include <analysis/Student.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>

namespace Metrics::tools::test {

namespace {

/// How a run differs from the usual one.
struct Changes {
    double parse = 1; ///< factors
    double work = 1;
    double all = 1;      ///< the machine as a whole
    double share = 0.03; ///< of the requests have a slow look-up
    double wait = 1;     ///< for a thread
    bool isNew = false;  ///< a label that there was not
    int requests = 400;
};

/// Requests as servers have them: heavy tails, pieces of one request alike, a scope that waits for
/// a task on another thread, and one that is fast or slow.
std::string Serve(unsigned seed, const Changes& changes) {
    std::mt19937_64 random(seed);
    std::lognormal_distribution<double> any(0, 0.5);
    std::uniform_real_distribution<double> share;
    Recording recording;
    double clock = 0;
    const auto stamp = [&] { return static_cast<Recording::Stamp>(clock); };
    for (Recording::Id i = 0; i < static_cast<Recording::Id>(changes.requests); ++i) {
        const Recording::Id request = 2 * i + 2;
        const double size = any(random) * changes.all; // of the whole request
        const auto scope = [&](Recording::Id context, const std::string& label, double time) {
            recording.Begin(stamp(), context, label);
            clock += time * size * any(random);
            recording.End(stamp(), context, label);
        };
        recording.Open(stamp(), request, 0);
        recording.Use(stamp(), request, "request", 1);
        scope(request, "parse", 20e3 * changes.parse);
        scope(request, "parse", 20e3 * changes.parse);
        scope(request, "look up", share(random) < changes.share ? 5e6 : 10e3);
        scope(request, "heap", share(random) < 0.5 ? 10e3 : 1e6);
        if (changes.isNew)
            scope(request, "new", 10e3);
        recording.Begin(stamp(), request, "wait");
        recording.Create(stamp(), request + 1, request);
        clock += 5e3 * size * any(random) * changes.wait;
        recording.Open(stamp(), request + 1, request);
        recording.Use(stamp(), request + 1, "task", 2 + i % 2);
        scope(request + 1, "work", 100e3 * changes.work);
        clock += 2e3 * size;
        recording.End(stamp(), request + 1, "task");
        recording.Close(stamp(), request + 1, request);
        recording.End(stamp() + 500, request, "wait");
        recording.End(stamp() + 600, request, "request");
        recording.Close(stamp() + 700, request, 0);
        clock += 10e3;
    }
    return recording.Text();
}

Diff Compare(unsigned seed, const Changes& before, const Changes& after, Model& model) {
    model = LoadTexts({Serve(seed, before), Serve(seed + 1000, after)});
    return MakeDiff(model);
}

/// What is named: "request" and "label" with the name.
std::set<std::string> Named(unsigned seed, const Changes& before, const Changes& after) {
    Model model;
    std::set<std::string> named;
    for (const Diff::Comparison& change : Compare(seed, before, after, model).changes) {
        named.insert((change.kind == Diff::Kind::Request ? "request " : "label ") +
                     std::string(model.names[change.name]));
        EXPECT_LE(change.low, change.high);
        // The interval holds the change itself, and not the absence of one.
        EXPECT_LE(change.low, change.after - change.before + 1);
        EXPECT_GE(change.high, change.after - change.before - 1);
        EXPECT_GT(change.after > change.before ? change.low : -change.high, -1);
    }
    return named;
}

using Names = std::set<std::string>;

} // namespace

TEST(DiffTest, NamesNothingOfEqualRuns) {
    int named = 0;
    for (unsigned seed = 0; seed < 50; ++seed) {
        Changes few;
        few.requests = 5 + static_cast<int>(seed) * 10;
        named += Named(seed, few, few).empty() ? 0 : 1;
    }
    EXPECT_LE(named, 1);
}

TEST(DiffTest, NamesWhatChangedAndNotWhatIsAroundIt) {
    for (unsigned seed = 0; seed < 5; ++seed) {
        SCOPED_TRACE(seed);
        EXPECT_EQ(Named(seed, {}, {.parse = 1.6}), Names{"label parse"});
        EXPECT_EQ(Named(seed, {.parse = 1.6}, {}), Names{"label parse"});
        // The scope that waits for it takes longer too.
        EXPECT_EQ(Named(seed, {}, {.work = 3}), Names{"label work"});
        EXPECT_EQ(Named(seed, {}, {.parse = 2, .work = 2}), (Names{"label parse", "label work"}));
        EXPECT_EQ(Named(seed, {}, {.share = 0.3}), Names{"label look up"});
        EXPECT_EQ(Named(seed, {}, {.isNew = true}), Names{"label new"});
        // Nothing took longer but the time until a thread came.
        EXPECT_EQ(Named(seed, {}, {.wait = 100}), Names{"label wait"});
    }
}

TEST(DiffTest, TakesNoMachineThatIsBusyForAChange) {
    EXPECT_EQ(Named(1, {}, {.all = 1.5}), Names{});
    EXPECT_EQ(Named(1, {}, {.parse = 10, .all = 1.3}), Names{"label parse"});
}

TEST(DiffTest, ComparesTotalsForAsManyRequests) {
    EXPECT_EQ(Named(1, {}, {.requests = 900}), Names{});
    Model model;
    const Diff diff = Compare(1, {}, {.parse = 2, .requests = 800}, model);
    for (const Diff::Comparison& change : diff.changes)
        EXPECT_NEAR(static_cast<double>(change.after) / static_cast<double>(change.before), 2, 0.4);
    EXPECT_TRUE(std::any_of(diff.changes.begin(), diff.changes.end(), [](const auto& change) {
        return change.quantity == Diff::Quantity::Total; // twice as much, not four times
    }));
    EXPECT_TRUE(diff.areRequests);
}

TEST(DiffTest, IsTheMoreCarefulTheMoreItCompares) {
    const auto write = [](unsigned seed, double factor, int others) {
        std::mt19937_64 random(seed);
        std::lognormal_distribution<double> any(10, 0.5);
        Recording recording;
        Recording::Stamp now = 10;
        for (Recording::Id id = 2; id < 200; ++id) {
            recording.Open(now, id, 0);
            recording.Use(now, id, "request", 1);
            recording.Begin(now, id, "parse");
            recording.End(now += static_cast<Recording::Stamp>(any(random) * factor), id, "parse");
            for (int other = 0; other < others; ++other) {
                recording.Begin(now, id, std::to_string(other));
                recording.End(now += 1000, id, std::to_string(other));
            }
            recording.End(now, id, "request");
            recording.Close(now, id, 0);
        }
        return recording.Text();
    };
    const auto certain = [&](int others) { // how much longer in total, at least
        const Model model = LoadTexts({write(1, 1, others), write(2, 3, others)});
        const Diff diff = MakeDiff(model);
        const auto change =
            std::find_if(diff.changes.begin(), diff.changes.end(), [&](const auto& candidate) {
                return model.names[candidate.name] == "parse" &&
                       candidate.quantity == Diff::Quantity::Total;
            });
        EXPECT_NE(change, diff.changes.end());
        return change == diff.changes.end() ? 0 : change->low;
    };
    EXPECT_LT(static_cast<double>(certain(50)), 0.97 * static_cast<double>(certain(1)));
}

TEST(DiffTest, TakesWhatOccursOnceForAChangeWhenItIsFarOff) {
    const auto write = [](Recording::Stamp start) {
        Recording recording;
        recording.Open(10, 2, 0);
        recording.Use(10, 2, "setup", 1);
        recording.Begin(10, 2, "start");
        recording.End(10 + start, 2, "start");
        Recording::Stamp now = 10 + start;
        recording.End(now, 2, "setup");
        recording.Close(now, 2, 0);
        for (Recording::Id id = 3; id < 60; ++id) {
            recording.Open(now, id, 0);
            recording.Use(now, id, "request", 1);
            recording.End(now += 10'000'000, id, "request");
            recording.Close(now, id, 0);
        }
        return recording.Text();
    };
    const auto named = [&](Recording::Stamp before, Recording::Stamp after) {
        const Model model = LoadTexts({write(before), write(after)});
        Names names;
        for (const Diff::Comparison& change : MakeDiff(model).changes)
            names.emplace(model.names[change.name]);
        return names;
    };
    EXPECT_EQ(named(50'000'000, 500'000'000), Names{"start"});
    EXPECT_EQ(named(500'000'000, 50'000'000), Names{"start"});
    EXPECT_EQ(named(200'000'000, 800'000'000), Names{}) << "four times";
    EXPECT_EQ(named(5'000'000, 95'000'000), Names{}) << "nothing that one would notice";
}

TEST(DiffTest, TakesASingleRequestApart) {
    // One request, whose many tasks stand for themselves.
    const auto write = [](unsigned seed, double factor) {
        std::mt19937_64 random(seed);
        std::lognormal_distribution<double> any(9, 0.5);
        Recording recording;
        recording.Open(0, 2, 0);
        recording.Use(0, 2, "all", 1);
        recording.Begin(0, 2, "wait for all");
        Recording::Stamp now = 10;
        for (Recording::Id id = 3; id < 500; ++id) {
            recording.Create(now, id, 2);
            recording.Open(now, id, 2);
            recording.Use(now, id, "task", 2);
            recording.Begin(now, id, "read");
            recording.End(now += static_cast<Recording::Stamp>(any(random)), id, "read");
            recording.Begin(now, id, "count");
            recording.End(now += static_cast<Recording::Stamp>(any(random) * factor), id, "count");
            recording.End(now, id, "task");
            recording.Close(now, id, 2);
        }
        recording.End(now, 2, "wait for all");
        recording.End(now, 2, "all");
        recording.Close(now, 2, 0);
        return recording.Text();
    };
    const auto named = [&](double factor) {
        const Model model = LoadTexts({write(1, 1), write(2, factor)});
        const Diff diff = MakeDiff(model);
        EXPECT_FALSE(diff.areRequests);
        EXPECT_GT(diff.tooFew, 0U);
        Names names;
        for (const Diff::Comparison& change : diff.changes)
            names.emplace(model.names[change.name]);
        return names;
    };
    EXPECT_EQ(named(1), Names{});
    EXPECT_EQ(named(1.5), Names{"count"});
    EXPECT_EQ(named(200), Names{"count"}); // 2 s: the scope that waits is 100 times as long
}

TEST(StudentTest, AgreesWithTables) {
    EXPECT_NEAR(StudentQuantile(0.05, 1), 12.706, 1e-3);
    EXPECT_NEAR(StudentQuantile(0.01, 2), 9.925, 1e-3);
    EXPECT_NEAR(StudentQuantile(0.001, 9), 4.781, 1e-3);
    EXPECT_NEAR(StudentQuantile(0.0001, 30), 4.482, 1e-3);
    EXPECT_NEAR(StudentQuantile(0.05, 100), 1.984, 1e-3);
}

} // namespace Metrics::tools::test
