#include "Recording.h"

#include <Reader.h>
#include <export/Chrome.h>
#include <export/Identity.h>
#include <export/Span.h>
#include <export/SpanFollower.h>
#include <export/Text.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace Metrics::tools::test {
namespace {

using Json = nlohmann::json;

constexpr const char* given = "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01";
constexpr const char* sent = "00-0af7651916cd43dd8448eb211c80319c-00000000000000aa-01";

TEST(Export, TakesTheTraceParentsThatAreValid) {
    const auto parent = ParseTraceParent(given);
    ASSERT_TRUE(parent);
    EXPECT_EQ(parent->trace, (TraceId{0x0af7651916cd43dd, 0x8448eb211c80319c}));
    EXPECT_EQ(parent->span, 0xb7ad6b7169203331);
    const std::string text = given;
    EXPECT_TRUE(ParseTraceParent("cc" + text.substr(2))) << "a later version";
    EXPECT_TRUE(ParseTraceParent("cc" + text.substr(2) + "-more")) << "with more fields";
    for (const std::string& invalid :
         {std::string(), text.substr(1), text + "-", text + "0", "cc" + text.substr(2) + "x",
          "ff" + text.substr(2), "0x" + text.substr(2),
          "00-" + std::string(32, '0') + text.substr(35),
          text.substr(0, 36) + std::string(16, '0') + "-01", text.substr(0, 53) + "0G",
          text.substr(0, 3) + "0AF7" + text.substr(7), "00_" + text.substr(3), " " + text})
        EXPECT_FALSE(ParseTraceParent(invalid)) << invalid;
}

TEST(Export, TellsTheKindsOfValuesAsTheyAreWritten) {
    EXPECT_EQ(ToValue("0"), Value(std::int64_t{0}));
    EXPECT_EQ(ToValue("-9223372036854775808"), Value(std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ(ToValue("true"), Value(true));
    EXPECT_EQ(ToValue("-0.250000"), Value(-0.25));
    for (const char* text : {"", "-", "9223372036854775808", "007", "-0", "+1", "1 ", "True", "1.5",
                             "1e3", ".500000", "01.000000", "1.0000000", "nan", "inf", "1.00000x"})
        EXPECT_EQ(ToValue(text), Value(std::string_view(text))) << text;
    std::string json;
    AppendJsonValue(json, ToValue("100000000000000000000000.000000"));
    AppendJsonValue(json, ToValue("2.000000"));
    EXPECT_EQ(json, "1e+232.0");
}

TEST(Export, MendsTexts) {
    std::string text;
    AppendUtf8(text, "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80 \xff\xc3 \xc0\xaf \xed\xa0\x80 "
                     "\xf4\x90\x80\x80 \xe2\x82");
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(text, "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80 " + bad + bad + " " + bad + bad + " " +
                        bad + bad + bad + " " + bad + bad + bad + bad + " " + bad + bad);
    std::string json;
    const std::string_view all("q\"\\\n\t\x01\x1f\x7f/\xff", 10);
    AppendJsonString(json, all);
    EXPECT_EQ(Json::parse(json).get<std::string>(), "q\"\\\n\t\x01\x1f\x7f/" + bad);
}

TEST(Export, GivesEachProcessAndRootATraceOfItsOwn) {
    const RunIdentity identity{"shop", "red", 7, 1'000};
    std::set<std::pair<std::uint64_t, std::uint64_t>> traces;
    for (const RunIdentity& one :
         {identity, RunIdentity{"shop", "blue", 7, 1'000}, RunIdentity{"shop", "red", 8, 1'000},
          RunIdentity{"shop", "red", 7, 1'001}})
        for (const std::uint64_t root : {1U, 2U}) {
            const TraceId trace = SpanIds(one).Trace(root);
            EXPECT_TRUE(traces.emplace(trace.high, trace.low).second);
        }
    EXPECT_EQ(SpanIds(identity).Trace(1), SpanIds({"another name", "red", 7, 1'000}).Trace(1));

    const SpanIds ids(identity);
    const auto in = ParseTraceParent(given);
    const auto out = ParseTraceParent(sent);
    const auto foreign =
        ParseTraceParent("00-11111111111111111111111111111111-00000000000000aa-01");
    EXPECT_EQ(IdentifyTree(ids, 1, in, {}).parent, in->span);
    EXPECT_EQ(IdentifyTree(ids, 1, in, {}).root, ids.OfContext(1));
    EXPECT_EQ(IdentifyTree(ids, 1, {}, out).trace, out->trace);
    EXPECT_EQ(IdentifyTree(ids, 1, {}, out).root, 0xaa);
    EXPECT_EQ(IdentifyTree(ids, 1, in, out).root, 0xaa);
    EXPECT_EQ(IdentifyTree(ids, 1, in, foreign).root, ids.OfContext(1))
        << "it cannot be of two traces";
    EXPECT_EQ(IdentifyTree(ids, 1, in, in).root, ids.OfContext(1)) << "nobody is their own parent";
}

/// A span as a line, whose ids are those of others of the same run.
using Lines = std::map<SpanId, std::string>;

void AddLine(const Span& span, Lines& lines) {
    std::string line = std::to_string(static_cast<int>(span.kind)) + " " + std::string(span.label) +
                       " of " + std::to_string(span.context) + " in " +
                       std::to_string(span.parent) + " at " + std::to_string(span.start) + "-" +
                       std::to_string(span.end) + (span.hasStart ? "" : " start?") +
                       (span.hasEnd ? "" : " end?") + " thread " + std::to_string(span.thread) +
                       " root " + std::to_string(span.root) + " trace " +
                       std::to_string(span.trace.low);
    for (const SpanAttribute& attribute : span.attributes)
        line += " " + std::string(attribute.name) + "=" + std::string(attribute.value);
    for (const SpanEvent& event : span.events)
        line +=
            " " + std::to_string(event.stamp) + std::string(event.name) + std::string(event.value);
    EXPECT_TRUE(lines.emplace(span.id, line).second) << "twice: " << line;
}

Lines FromModel(const std::string& text) {
    const Model model = LoadTexts({text});
    const Run& run = model.runs.front();
    Lines lines;
    ForEachSpan(model, run, SpanIds({"", "red", run.pid, run.wallOffset}),
                [&](const Span& span) { AddLine(span, lines); });
    return lines;
}

using Numbers = std::map<std::uint64_t, SpanId>;

/// @param pause after so many events, as when the file has no more for a while.
Lines FromFollower(const std::string& text, Numbers& numbers, HeadersByContext known = {},
                   std::size_t pause = 0) {
    const TemporaryFile file(text);
    const auto reader = OpenCsv(file.Path());
    Lines lines;
    SpanFollower follower({"", "red"}, {}, std::move(known),
                          [&](const Span& span, std::uint64_t number) {
                              AddLine(span, lines);
                              if (number != 0) {
                                  EXPECT_TRUE(numbers.emplace(number, span.id).second);
                              }
                          });
    EventBatch batch;
    while (reader->Read(batch))
        for (const Event& event : batch.events) {
            follower.Add(event);
            if (pause != 0 && --pause == 0)
                follower.SettleAll();
        }
    follower.Finish();
    return lines;
}

/// Contexts and scopes of some threads, drawn at random; some stay open.
std::string RandomRun(unsigned seed) {
    std::mt19937 random(seed);
    Recording recording;
    struct Live {
        std::uint64_t id;
        std::uint64_t parent;
        bool isOpened = false;
        std::vector<std::string> scopes = {};
    };
    std::vector<Live> live;
    std::uint64_t next = 2;
    std::uint64_t now = 100;
    for (int i = 0; i < 400; ++i) {
        now += random() % 3; // moments in which several things happen, too
        const auto choice = random() % 10;
        if (live.empty() || choice == 0) {
            const bool isRoot = live.empty() || random() % 2 == 0;
            const std::uint64_t parent = isRoot ? random() % 2 : live[random() % live.size()].id;
            live.push_back({next++, parent});
            recording.Create(now, live.back().id, parent);
            continue;
        }
        const std::size_t at = random() % live.size();
        Live& one = live[at];
        if (!one.isOpened) {
            recording.Open(now, one.id, one.parent);
            one.isOpened = true;
            if (random() % 8 == 0)
                continue; // perhaps it is never used
            // It may be used first where another one is current, which then has its own scope.
            Live& current = random() % 3 == 0 ? live[random() % live.size()] : one;
            if (!current.isOpened)
                continue;
            recording.Event(now, current.id, 8, "pid", 4000);
            recording.Event(now, current.id, 8, "tid", 10 + random() % 3);
            recording.Event(now, current.id, 8, "cid", one.id);
            recording.Begin(now, current.id, "context");
            current.scopes.emplace_back("context");
            if (random() % 4 == 0)
                recording.Line(recording.Head(now, one.id, 8) + "traceparent," + given);
        } else if (choice < 5) {
            one.scopes.push_back("scope" + std::to_string(random() % 3));
            recording.Begin(now, one.id, one.scopes.back());
        } else if (choice < 7 && !one.scopes.empty()) {
            recording.End(now, one.id, one.scopes.back());
            one.scopes.pop_back();
        } else if (choice == 7) {
            recording.Emit(now, one.id, "event", random() % 5);
            recording.Event(now, one.id, 8, "attribute" + std::to_string(random() % 20),
                            random() % 100);
        } else if (choice > 7) {
            while (!one.scopes.empty()) {
                recording.End(now, one.id, one.scopes.back());
                one.scopes.pop_back();
            }
            recording.Close(now, one.id, one.parent);
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(at));
        }
    }
    return recording.Text();
}

TEST(Export, FollowsARunToTheSameSpansAsItHasAsAWhole) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        const std::string text = RandomRun(seed);
        Numbers numbers;
        const Lines whole = FromModel(text);
        EXPECT_EQ(FromFollower(text, numbers), whole) << "seed " << seed;
        ASSERT_GT(whole.size(), 50U);

        // Of a part of the run, and with pauses, come the same numbers, so that a restart knows
        // what it has sent.
        Numbers first;
        FromFollower(text.substr(0, text.rfind('\n', text.size() * 2 / 3) + 1), first, {}, 100);
        ASSERT_LT(first.size(), numbers.size());
        EXPECT_TRUE(std::equal(first.begin(), first.end(), numbers.begin())) << "seed " << seed;
    }
}

TEST(Export, ExportsWhatIsOpenAndWhatIsOnlyKnownFromOthers) {
    Recording recording;
    recording.Begin(5, 1, "cxt"); // something stands in the client's own context
    recording.Create(10, 2, 1);
    recording.Open(20, 2, 1);
    recording.Use(20, 2, "request", 4);
    recording.Create(25, 3, 2);
    recording.Create(30, 5, 4); // of a context that the file does not have
    recording.End(31, 2, "unknown");
    const SpanIds ids({"", "red", 4000, 1'700'000'000'000'000'000});
    Numbers numbers;
    for (const Lines& lines :
         {FromModel(recording.Text()), FromFollower(recording.Text(), numbers)}) {
        const auto tail = [&](std::uint64_t root) {
            return " root " + std::to_string(ids.OfContext(root)) + " trace " +
                   std::to_string(ids.Trace(root).low);
        };
        const auto in = [&](std::uint64_t context) {
            return " in " + std::to_string(ids.OfContext(context));
        };
        EXPECT_EQ(
            lines,
            (Lines{
                {ids.OfContext(1), "0 cxt of 1 in 0 at 0-31 end? thread -1" + tail(1)},
                {ids.OfScope(1, 0), "1 cxt of 1" + in(1) + " at 5-31 end? thread -1" + tail(1)},
                {ids.OfContext(2), "0 request of 2 in 0 at 20-31 end? thread 4" + tail(2)},
                {ids.OfQueue(2), "2 request of 2" + in(2) + " at 10-20 thread 4" + tail(2)},
                {ids.OfScope(2, 0), "1 request of 2" + in(2) + " at 20-31 end? thread 4" + tail(2)},
                {ids.OfContext(3), "0  of 3" + in(2) + " at 25-31 start? end? thread -1" + tail(2)},
                {ids.OfQueue(3), "2  of 3" + in(3) + " at 25-31 end? thread -1" + tail(2)},
                {ids.OfContext(4), "0  of 4 in 0 at 30-31 start? end? thread -1" + tail(4)},
                {ids.OfContext(5), "0  of 5" + in(4) + " at 30-31 start? end? thread -1" + tail(4)},
                {ids.OfQueue(5), "2  of 5" + in(5) + " at 30-31 end? thread -1" + tail(4)}}));
    }
    EXPECT_TRUE(numbers.empty());
}

TEST(Export, EndsAScopeWithItsContextAtTheLatest) {
    Recording recording;
    recording.Create(10, 2, 1);
    recording.Open(20, 2, 1);
    recording.Use(20, 2, "request", 4);
    recording.Begin(25, 2, "cut");
    recording.Close(40, 2, 1);
    recording.Emit(90, 1, "much later", 0);
    const SpanId cut = SpanIds({"", "red", 4000, 1'700'000'000'000'000'000}).OfScope(2, 1);
    Numbers numbers;
    for (Lines lines : {FromModel(recording.Text()), FromFollower(recording.Text(), numbers)})
        EXPECT_NE(lines[cut].find(" at 25-40 end? "), std::string::npos) << lines[cut];
}

TEST(Export, CountsTheEventsThatAContextHasNoRoomFor) {
    std::uint64_t dropped = 0;
    std::size_t kept = 0;
    SpanFollower follower({"", "red", 4000, 0}, {2, 2}, {}, [&](const Span& span, std::uint64_t) {
        dropped += span.droppedEvents;
        kept += span.events.size();
    });
    follower.Add({.type = EventType::ContextOpened, .id = 2});
    for (std::uint64_t i = 0; i < 5; ++i)
        follower.Add({.stamp = i, .context = 2, .type = EventType::Custom, .first = "event"});
    follower.Add({.stamp = 9, .type = EventType::ContextClosed, .id = 2});
    follower.Finish();
    EXPECT_EQ(kept, 2U);
    EXPECT_EQ(dropped, 3U);
}

TEST(Export, HoldsATreeBackUntilItsTraceIsKnown) {
    Recording recording;
    const auto tell = [&](std::uint64_t at) {
        recording.Line(recording.Head(at, 2, 8) + "traceparent," + given);
    };
    recording.Create(10, 2, 0);
    recording.Open(5'000'000'000, 2, 0); // it has waited long
    recording.Use(5'000'000'000, 2, "request", 4);
    recording.Begin(5'000'000'010, 2, "early");
    recording.End(5'000'000'020, 2, "early");
    const auto traces = [&](HeadersByContext known) {
        Numbers numbers;
        std::set<bool> joined;
        for (const auto& [id, line] : FromFollower(recording.Text(), numbers, std::move(known)))
            joined.insert(line.find("trace " + std::to_string(0x8448eb211c80319c)) != line.npos);
        return joined;
    };
    Recording before = recording;
    tell(5'000'000'030);
    EXPECT_EQ(traces({}), std::set{true});
    recording = before;
    recording.Begin(6'500'000'000, 2, "late");
    tell(6'500'000'010);
    EXPECT_EQ(traces({}), std::set{false}) << "it was not waited for so long";
    EXPECT_EQ(traces({{2, {ParseTraceParent(given), {}}}}), std::set{true})
        << "looked up beforehand";
}

Json ToChrome(const std::string& text, const ChromeOptions& options = {}) {
    const Model model = LoadTexts({text});
    const TemporaryFile file("");
    WriteChrome(model, {{"shop", "red", 4000, model.runs.front().wallOffset}}, options,
                file.Path());
    std::ifstream stream(file.Path());
    return Json::parse(stream)["traceEvents"];
}

TEST(Export, NestsSlicesOnEachThread) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        const std::string text = RandomRun(seed);
        std::map<int, std::vector<std::string>> open; // by thread
        std::map<std::string, std::vector<std::string>> tracks;
        std::map<std::string, int> arrows;
        std::multiset<std::string> begun;
        double last = 0;
        for (const Json& event : ToChrome(text)) {
            const std::string phase = event["ph"];
            if (phase == "M")
                continue;
            const std::string name = event["name"];
            EXPECT_GE(event["ts"], last);
            last = event["ts"];
            auto& stack = phase == "b" || phase == "e" ? tracks[event["id"]] : open[event["tid"]];
            if (phase == "B" || phase == "b") {
                stack.push_back(name);
                begun.insert(name);
            } else if (phase == "E" || phase == "e") {
                ASSERT_TRUE(!stack.empty() && stack.back() == name) << event << " seed " << seed;
                stack.pop_back();
            } else if (phase == "s" || phase == "f") {
                EXPECT_FALSE(stack.empty()) << event << " seed " << seed;
                arrows[event["id"]] += phase == "s" ? 1 : 10;
            }
        }
        for (const auto& [thread, stack] : open)
            EXPECT_TRUE(stack.empty());
        for (const auto& [id, stack] : tracks)
            EXPECT_TRUE(stack.empty());
        for (const auto& [id, ends] : arrows)
            EXPECT_EQ(ends, 11) << id;
        std::multiset<std::string> wanted;
        for (const auto& [id, line] : FromModel(text))
            if (line[0] != '2')
                wanted.insert(line[2] == ' ' ? "(never used)"
                                             : line.substr(2, line.find(" of ") - 2));
        EXPECT_EQ(begun, wanted) << "nothing is left out, seed " << seed;
    }
}

TEST(Export, NestsWhatBeginsAtOneTime) {
    Recording recording;
    recording.Create(10, 2, 1);
    recording.Open(20, 2, 1);
    recording.Use(20, 2, "request", 4);
    recording.Begin(20, 2, "part");
    recording.End(30, 2, "part");
    recording.End(50, 2, "request");
    recording.Close(60, 2, 1);
    std::string phases;
    for (const Json& event : ToChrome(recording.Text()))
        phases += event["ph"].get<std::string>();
    EXPECT_EQ(phases, "MMBBBEEE");
}

TEST(Export, WritesAPartOfARun) {
    Recording recording;
    for (std::uint64_t i = 0; i < 4; ++i) {
        const std::uint64_t at = 1'000'000 * (i + 1);
        recording.Create(at, 10 * i + 10, 0);
        recording.Open(at + 10, 10 * i + 10, 0);
        recording.Use(at + 20, 10 * i + 10, "request" + std::to_string(i), 5);
        recording.Create(at + 30, 10 * i + 11, 10 * i + 10);
        recording.Open(at + 40, 10 * i + 11, 10 * i + 10);
        recording.Use(at + 41, 10 * i + 11, "task" + std::to_string(i), 6);
        recording.End(at + 50, 10 * i + 11, "task" + std::to_string(i));
        recording.Close(at + 60, 10 * i + 11, 10 * i + 10);
        recording.End(at + 100 * (i + 1), 10 * i + 10, "request" + std::to_string(i));
        recording.Close(at + 100 * (i + 1), 10 * i + 10, 0);
    }
    const auto names = [&](const ChromeOptions& options) {
        std::set<std::string> found;
        int arrows = 0;
        for (const Json& event : ToChrome(recording.Text(), options)) {
            if (event["ph"] == "B")
                found.insert(event["name"]);
            arrows += event["ph"] == "s" ? 1 : 0;
        }
        EXPECT_EQ(arrows, std::count_if(found.begin(), found.end(), [&](const std::string& name) {
                      return name.starts_with("task") && found.contains("request" + name.substr(4));
                  }));
        return found;
    };
    using Set = std::set<std::string>;
    using Set = std::set<std::string>;
    const auto part = [](std::uint64_t from, std::uint64_t to,
                         std::optional<std::size_t> slowest = {},
                         std::optional<std::uint64_t> root = {}) {
        return ChromeOptions{from, to, slowest, root};
    };
    EXPECT_EQ(names({}).size(), 8U);
    EXPECT_EQ(names(part(0, never, 1)), (Set{"request3", "task3"}));
    EXPECT_EQ(names(part(0, never, {}, 21)), (Set{"task1"}));
    EXPECT_EQ(names(part(0, never, {}, 20)), (Set{"request1", "task1"}));
    EXPECT_EQ(names(part(0, never, 2, 20)), Set());
    EXPECT_EQ(names(part(2'000'150, 3'000'010)), (Set{"request1", "request2"}));
    EXPECT_EQ(names(part(2'000'300, 2'000'900)), Set());
}

} // namespace
} // namespace Metrics::tools::test
