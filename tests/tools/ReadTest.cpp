#include "Recording.h"

#include <analysis/Check.h>
#include <analysis/Diff.h>
#include <analysis/Report.h>
#include <analysis/Slow.h>

#include <gtest/gtest.h>

namespace Metrics::tools::test {

namespace {

/// The labels of a run's scopes, in order.
std::vector<std::string> Labels(const Model& model) {
    std::vector<std::string> labels;
    for (const Scope& scope : model.runs.at(0).scopes)
        labels.emplace_back(model.names[scope.label]);
    return labels;
}

} // namespace

TEST(ReadTest, TellsLabelsAndValuesApartWhateverTheyHold) {
    Recording recording;
    const auto scope = [&](const std::string& label) { recording.Begin(5, 1, label); };
    scope("a,b");
    scope(R"("say ""hi""")");
    scope(R"("""")");
    scope(R"("a,""b"",c")");
    scope("it's");
    scope("");
    scope("0,5,x");
    const Model model = LoadTexts({recording.Text()});
    EXPECT_EQ(Labels(model), (std::vector<std::string>{"a,b", "say \"hi\"", "\"", "a,\"b\",c",
                                                       "it's", "", "0,5,x"}));

    Recording values;
    values.Line(values.Head(5, 1, 8) + "file,a,b");
    values.Line(values.Head(6, 1, 8) + R"("a ""b"", c",d)");
    values.Line(values.Head(7, 1, 7) + R"(,"x,""y""")");
    values.Line(values.Head(8, 1, 7) + ",");
    const Model other = LoadTexts({values.Text()});
    const auto& run = other.runs.at(0);
    ASSERT_EQ(run.attributes.size(), 2U);
    EXPECT_EQ(other.names[run.attributes[0].name], "file");
    EXPECT_EQ(run.attributes[0].value, "a,b");
    EXPECT_EQ(other.names[run.attributes[1].name], "a \"b\", c");
    EXPECT_EQ(run.attributes[1].value, "d");
    ASSERT_EQ(run.customs.size(), 2U);
    EXPECT_EQ(run.customs[0].first, "");
    EXPECT_EQ(run.customs[0].second, "x,\"y\"");
}

TEST(ReadTest, ListsTheLinesThatAreNoEventsAndUsesTheOthers) {
    const std::vector<std::string> bad = {
        "",
        "x",
        "5,1.000000,1,5,label",    // five fields
        "5x,1.000000,1,5,label,0", // letters in numbers
        "5,1.0000z0,1,5,label,0",
        "5,1.000000,,5,label,0",
        "5,1.000000,1,five,label,0",
        "5,1.000000,0,2,0,7a",
        "-5,1.000000,1,5,label,0",
        "18446744073709551616,1.000000,1,5,label,0", // above 64 bits
        "5,1.000000,18446744073709551616,5,label,0",
    };
    const std::vector<std::string> good = {
        "18446744073709551615,1.000000,1,5,late,0",
        "5,1.000000,1,99,whatever,\"",
        "5,1.000000,1,-3,,",
        "5,1.000000,0,7,lost,12",
        "5,1.000000,1,7,lost,5", // an application's own
        "5,1.000000,0,7,lost,3",
    };
    Recording recording;
    for (const std::string& line : bad)
        recording.Line(line);
    for (const std::string& line : good)
        recording.Line(line);
    std::vector<std::string> problems;
    const Model model = LoadTexts({recording.Text() + "6,1.000000,1,5,cut short"}, &problems);
    const Check check = MakeCheck(model);
    std::vector<std::uint64_t> lines;
    for (std::size_t i = 0; i < bad.size(); ++i)
        lines.push_back(4 + i); // behind the header, and the client's context
    EXPECT_EQ(check.unreadableLines, lines);
    EXPECT_TRUE(check.truncated);
    EXPECT_EQ(check.lost, 15U);
    EXPECT_EQ(model.runs.at(0).events, 2 + good.size());
    ASSERT_FALSE(problems.empty());
    EXPECT_NE(problems[0].find(":4: "), std::string::npos) << problems[0];
}

TEST(ReadTest, KnowsWhatIsNoFileOfEvents) {
    const auto problemsOf = [](const std::string& text) {
        std::vector<std::string> problems;
        const std::size_t runs = LoadTexts({text}, &problems).runs.size();
        EXPECT_EQ(runs, problems.empty() || problems[0].find("cut short") != std::string::npos);
        return problems.size();
    };
    EXPECT_EQ(problemsOf("timestamp,datetime,context_id,event_type,param1,param2\n"), 0U);
    EXPECT_EQ(problemsOf("timestamp,date"), 1U); // killed while it wrote the header
    EXPECT_EQ(problemsOf(""), 1U);
    EXPECT_EQ(problemsOf("name,age\nx,7\n"), 1U);
    EXPECT_EQ(problemsOf(std::string(100'000, '\0')), 1U);

    // Other output may stand in front.
    const Model model = LoadTexts({"hello\nworld\n" + Recording().Text()});
    ASSERT_EQ(model.runs.size(), 1U);
    EXPECT_EQ(model.runs[0].events, 2U);
    EXPECT_EQ(model.runs[0].damage.unreadableLines, (std::vector<std::uint64_t>{1, 2, 3}));
}

TEST(ReadTest, TakesEveryLineWhereverTheBlocksEnd) {
    // More than a block of lines, of every length; and some that are longer than a block.
    Recording recording;
    std::size_t scopes = 0;
    std::size_t size = 0;
    for (std::size_t length = 1; size < 20 << 20; length = length % 3000 + 7, ++scopes) {
        const std::size_t labelLength = scopes == 2000 ? 6 << 20 : length;
        recording.Begin(scopes, 1, std::string(labelLength, 'x'));
        size += labelLength;
    }
    const Model model = LoadTexts({recording.Text()});
    ASSERT_EQ(model.runs.at(0).scopes.size(), scopes);
    std::size_t read = 0;
    for (const Scope& scope : model.runs[0].scopes)
        read += model.names[scope.label].size();
    EXPECT_EQ(read, size);
    EXPECT_TRUE(model.runs[0].damage.unreadableLines.empty());
}

TEST(ReadTest, FindsNamesAndThreadsWhereTheyWereRecorded) {
    // Context 3 is used for the first time while 2 is current: all that it records stands there.
    Recording recording;
    recording.Create(1, 2, 0);
    recording.Open(2, 2, 0);
    recording.Open(3, 3, 2); // its creation was before the file
    recording.Event(4, 2, 8, "pid", 4000);
    recording.Event(4, 2, 8, "tid", 77);
    recording.Event(4, 2, 8, "cid", 3);
    recording.Use(4, 2, "outer", 77);
    recording.Begin(4, 2, "inner");
    recording.Event(5, 2, 8, "tid", 5); // an application's own
    recording.Line(recording.Head(6, 9'000'000'000'000, 5) + "far,0");
    // So is 4, on another thread than that of 2.
    recording.Open(7, 4, 2);
    recording.Event(7, 2, 8, "pid", 4000);
    recording.Event(7, 2, 8, "tid", 78);
    recording.Event(7, 2, 8, "cid", 4);
    recording.Begin(7, 2, "elsewhere");
    recording.Create(8, 6, 2);
    recording.Event(8, 2, 8, "cid", 6); // an application's own, too
    recording.Begin(9, 2, "later");
    const Model model = LoadTexts({recording.Text()});
    const auto& run = model.runs.at(0);
    const auto context = [&](std::uint64_t id) {
        for (const Context& candidate : run.contexts)
            if (candidate.id == id)
                return candidate;
        return Context{};
    };
    EXPECT_EQ(model.names[context(2).name], "outer");
    EXPECT_EQ(model.names[context(3).name], "inner");
    EXPECT_EQ(context(2).tid, 77);
    EXPECT_EQ(context(3).tid, 77);
    EXPECT_EQ(context(1).name, noName);
    EXPECT_EQ(model.names[context(4).name], "elsewhere");
    EXPECT_EQ(context(4).tid, 78);
    EXPECT_EQ(context(6).name, noName);
    ASSERT_EQ(run.attributes.size(), 2U);
    EXPECT_EQ(run.attributes[0].value, "5");
    EXPECT_EQ(run.attributes[1].value, "6");
    EXPECT_EQ(context(9'000'000'000'000).scopeCount, 1U);
    EXPECT_EQ(run.pid, 4000);
}

TEST(ReadTest, EndsWhereContextsAreEachOthersParents) {
    Recording recording;
    for (const Recording::Id id : {2ul, 3ul}) {
        recording.Open(1, id, 5 - id);
        recording.Use(1, id, "round", 7);
    }
    for (const Recording::Id id : {2ul, 3ul}) {
        recording.End(5, id, "round");
        recording.Close(5, id, 5 - id);
    }
    const Model model = LoadTexts({recording.Text(), recording.Text()});
    EXPECT_EQ(MakeReport(model, "round").requests.at(0).durations.count, 4U);
    EXPECT_EQ(FindSlow(model, 1, "round").size(), 1U);
    EXPECT_TRUE(MakeDiff(model).changes.empty());
}

} // namespace Metrics::tools::test
