#include "Recording.h"

#include <analysis/Check.h>
#include <analysis/Report.h>
#include <analysis/SelfTime.h>
#include <analysis/Slow.h>
#include <analysis/Top.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <map>
#include <random>

namespace Metrics::tools::test {

namespace {

const Report::Label& LabelOf(const Report& report, const Model& model, const std::string& name) {
    static const Report::Label nothing;
    for (const Report::Label& label : report.labels)
        if (model.names[label.label] == name)
            return label;
    ADD_FAILURE() << "no label " << name;
    return nothing;
}

/// What is known of a run before it is written down.
struct Known {
    std::map<std::string, std::vector<std::uint64_t>> requests;
    std::map<std::string, std::vector<std::uint64_t>> waits;
    std::map<std::string, std::vector<std::uint64_t>> durations;
    std::map<std::string, std::uint64_t> self;
    std::map<std::uint64_t, std::uint64_t> busy;
};

/// Requests one after the other on one thread each, with a child on another thread that waits, and
/// one on the same thread. Some are twice as slow for their wait.
std::string Schedule(unsigned seed, int requests, Known& known) {
    std::mt19937 random(seed);
    const auto some = [&](std::uint64_t most) { return 1 + random() % most; };
    Recording recording;
    Recording::Stamp now = 1000;
    Recording::Id next = 2;
    const auto scope = [&](Recording::Id context, const std::string& label) {
        const std::uint64_t duration = some(5000);
        recording.Begin(now, context, label);
        recording.End(now += duration, context, label);
        known.durations[label].push_back(duration);
        known.self[label] += duration;
        return duration;
    };
    for (int i = 0; i < requests; ++i) {
        const std::string name = i % 3 == 0 ? "get" : "put";
        const Recording::Id request = next++;
        const Recording::Stamp created = now;
        recording.Create(now, request, Recording::client);
        recording.Open(now += some(100), request, Recording::client);
        known.waits[name].push_back(now - created);
        const Recording::Stamp opened = now;
        recording.Use(now, request, name, 10);
        std::uint64_t inside = scope(request, "parse");

        // On the same thread, right inside of the request's own scope.
        const Recording::Id nested = next++;
        recording.Create(now, nested, request);
        recording.Open(now, nested, request);
        const Recording::Stamp nestedOpened = now;
        recording.Use(now, nested, "nested", 10);
        const std::uint64_t work = scope(nested, "parse");
        now += 7;
        recording.End(now, nested, "nested");
        recording.Close(now, nested, request);
        known.waits["nested"].push_back(0);
        known.durations["nested"].push_back(now - nestedOpened);
        known.self["nested"] += 7;
        inside += work + 7;

        // On another one.
        const Recording::Id task = next++;
        recording.Create(now, task, request);
        const std::uint64_t wait = some(i % 50 == 0 ? 1'000'000 : 1000);
        recording.Open(now += wait, task, request);
        const Recording::Stamp taskOpened = now;
        recording.Use(now, task, "task", 20);
        const std::uint64_t busy = scope(task, "work, of 'it'");
        recording.End(now, task, "task");
        recording.Close(now, task, request);
        known.waits["task"].push_back(wait);
        known.durations["task"].push_back(now - taskOpened);
        known.self["task"] += 0;
        known.busy[20] += busy;

        recording.End(now, request, name);
        recording.Close(now, request, Recording::client);
        known.requests[name].push_back(now - opened);
        known.durations[name].push_back(now - opened);
        known.self[name] += now - opened - inside;
        known.busy[10] += now - opened;
    }
    return recording.Text();
}

/// By the definition: the least of them that so large a share is not above.
void ExpectQuantile(std::optional<Nanoseconds> found, std::vector<std::uint64_t> all, double q) {
    std::sort(all.begin(), all.end());
    if (static_cast<double>(all.size()) < 1 / (1 - q) - 1e-6) {
        EXPECT_FALSE(found);
        return;
    }
    ASSERT_TRUE(found);
    const auto below =
        static_cast<double>(std::upper_bound(all.begin(), all.end(), *found) - all.begin());
    const auto under =
        static_cast<double>(std::lower_bound(all.begin(), all.end(), *found) - all.begin());
    EXPECT_GE(below + 1e-6, q * static_cast<double>(all.size()));
    EXPECT_LT(under, q * static_cast<double>(all.size()));
}

void Expect(const Distribution& found, const std::vector<std::uint64_t>& known) {
    EXPECT_EQ(found.count, known.size());
    EXPECT_EQ(found.sum, std::accumulate(known.begin(), known.end(), std::uint64_t{0}));
    ExpectQuantile(found.p50, known, 0.5);
    ExpectQuantile(found.p90, known, 0.9);
    ExpectQuantile(found.p99, known, 0.99);
    ExpectQuantile(found.p999, known, 0.999);
    EXPECT_EQ(found.max, *std::max_element(known.begin(), known.end()));
}

} // namespace

TEST(ReportTest, EveryNumberIsThatOfTheSchedule) {
    for (const int requests : {1, 2, 9, 10, 99, 100, 297, 300, 1500, 3000}) {
        SCOPED_TRACE(requests);
        Known known;
        const Model model = LoadTexts({Schedule(7, requests, known)});
        const Report report = MakeReport(model);
        EXPECT_EQ(report.runs, 1U);
        ASSERT_EQ(report.requests.size(), known.requests.size());
        for (const auto& [name, durations] : report.requests)
            Expect(durations, known.requests.at(std::string(model.names[name])));
        ASSERT_EQ(report.labels.size(), known.durations.size());
        for (const Report::Label& label : report.labels) {
            const std::string name(model.names[label.label]);
            SCOPED_TRACE(name);
            Expect(label.durations, known.durations.at(name));
            EXPECT_EQ(label.self, known.self.at(name));
            EXPECT_EQ(label.total, label.durations.sum);
        }
        ASSERT_EQ(report.handovers.size(), known.waits.size());
        for (const Report::Handover& handover : report.handovers) {
            const std::string name(model.names[handover.name]);
            Expect(handover.waits, known.waits.at(name));
            EXPECT_EQ(handover.mostWaiting, name == "nested" ? 0U : 1U);
        }
        ASSERT_EQ(report.threads.size(), 2U);
        for (const Report::Thread& thread : report.threads)
            EXPECT_EQ(thread.busy, known.busy.at(static_cast<std::uint64_t>(thread.tid)));
        EXPECT_TRUE(MakeCheck(model).neverOpened.empty());
        EXPECT_EQ(MakeReport(model, "task").requests.at(0).durations.count,
                  static_cast<std::size_t>(requests));
    }
}

TEST(ReportTest, TheTailIsWhatItsRequestsHaveMoreOf) {
    // Requests of next to nothing, and of 1440 to 1999 ns of work, of which the last 10 wait for a
    // task for long.
    Recording recording;
    Recording::Stamp now = 0;
    for (Recording::Id i = 0; i < 1000; ++i) {
        const Recording::Id request = 2 * i + 2;
        recording.Create(now, request, 0);
        recording.Open(now, request, 0);
        recording.Use(now, request, "get", 1);
        recording.Create(now, request + 1, request);
        now += i < 990 ? 100 : 5000;
        recording.Open(now, request + 1, request);
        recording.Use(now, request + 1, "task", 2);
        now += i < 440 ? 10 : 1000 + i;
        recording.End(now, request + 1, "task");
        recording.Close(now, request + 1, request);
        recording.End(now, request, "get");
        recording.Close(now, request, 0);
    }
    const Model model = LoadTexts({recording.Text()});
    const Report report = MakeReport(model);
    ASSERT_EQ(report.tail.size(), 3U);
    std::map<std::string, std::pair<Nanoseconds, Nanoseconds>> parts;
    for (const Report::TailPart& part : report.tail)
        parts[std::string(model.names[part.part])] = {part.median, part.tail};
    // The ranks 450 to 550, and 991 to 1000: on average the requests 499 and 994.5.
    EXPECT_EQ(report.tail[1].part, Report::TailPart::waiting); // behind what waits for it
    EXPECT_EQ(parts[""], (std::pair<Nanoseconds, Nanoseconds>{100, 5000}));
    EXPECT_EQ(parts["task"], (std::pair<Nanoseconds, Nanoseconds>{1499, 1995}));
    EXPECT_EQ(parts["get"], (std::pair<Nanoseconds, Nanoseconds>{1599, 6995}));
}

TEST(ReportTest, SelfTimeCountsEachMomentOnce) {
    Recording recording;
    recording.Open(0, 2, 0);
    recording.Use(0, 2, "own", 1);
    recording.Begin(10, 2, "a"); // recursive, and one of them without an end
    recording.Begin(20, 2, "a");
    recording.Begin(25, 2, "lost");
    recording.Begin(26, 2, "b");
    recording.End(30, 2, "b");
    recording.End(40, 2, "a");
    recording.End(60, 2, "a");
    recording.Begin(70, 2, "c"); // c and d overlap
    recording.Begin(80, 2, "d");
    recording.End(90, 2, "c");
    recording.End(100, 2, "d");
    recording.Begin(110, 2, "e");
    recording.Create(110, 3, 2); // on another thread
    recording.Open(111, 3, 2);
    recording.Use(111, 3, "other", 2);
    recording.Create(112, 4, 2); // on this one, and never used
    recording.Open(112, 4, 2);
    recording.Close(115, 4, 2);
    recording.Create(112, 5, 2); // on this one, and longer than the scope
    recording.Open(116, 5, 2);
    recording.Use(116, 5, "same", 1);
    recording.End(120, 2, "e");
    recording.End(121, 5, "same");
    recording.Close(121, 5, 2);
    recording.End(122, 3, "other");
    recording.Close(122, 3, 2);
    recording.End(125, 2, "nowhere");
    recording.End(130, 2, "own");
    recording.Close(130, 2, 0);
    const Model model = LoadTexts({recording.Text()});
    const Report report = MakeReport(model);
    const auto expect = [&](const std::string& label, std::size_t count, Nanoseconds total,
                            Nanoseconds self) {
        const Report::Label& found = LabelOf(report, model, label);
        EXPECT_EQ(found.durations.count, count) << label;
        EXPECT_EQ(found.total, total) << label;
        EXPECT_EQ(found.self, self) << label;
    };
    expect("a", 2, 50, 50 - 20 + 20 - 4);
    expect("b", 1, 4, 4);
    expect("c", 1, 20, 10);
    expect("d", 1, 20, 20);
    expect("e", 1, 10, 6);
    expect("own", 1, 130, 130 - 50 - 30 - 11);
    const Check check = MakeCheck(model);
    EXPECT_EQ(check.unmatchedScopes, 2U);
    EXPECT_EQ(report.labels.size(), 8U);
}

TEST(ReportTest, FilesAreAlignedByTheWallClock) {
    // Two processes, whose clocks began 3 us apart, hand over at the same time.
    const auto write = [](std::uint64_t wall, Recording::Stamp from, Recording::Stamp to) {
        Recording recording(wall);
        for (Recording::Id id = 2; id < 5; ++id)
            recording.Create(from + id, id, 0);
        for (Recording::Id id = 2; id < 5; ++id) {
            recording.Open(to + id, id, 0);
            recording.Use(to + id, id, "task", 9);
            recording.End(to + id + 5, id, "task");
            recording.Close(to + id + 5, id, 0);
        }
        return recording.Text();
    };
    const std::uint64_t base = 1'700'000'000'000'000'000;
    const auto most = [&](std::uint64_t wall) {
        const Model model = LoadTexts({write(base, 10'000, 11'000), write(wall, 7000, 8000)});
        const Report report = MakeReport(model);
        EXPECT_EQ(report.threads.size(), 2U); // the same number in two processes
        return report.handovers.at(0).mostWaiting;
    };
    EXPECT_EQ(most(base + 3000), 6U);
    EXPECT_EQ(most(base + 9000), 3U);
    EXPECT_EQ(most(base + 4000), 3U) << "one is opened in the moment in which another is created";
}

TEST(CheckTest, TellsWhatIsMissing) {
    Recording recording;
    recording.Open(1, 2, 0); // in flight when the process died
    recording.Use(1, 2, "request", 1);
    recording.Begin(2, 2, "outer");
    recording.Begin(3, 2, "inner");
    recording.End(4, 2, "inner");
    recording.Begin(4, 2, "innermost");
    recording.Create(5, 3, 2); // lost
    recording.Create(6, 4, 2);
    recording.Open(7, 4, 2); // open, and never used
    const Model model = LoadTexts({recording.Text()});
    const Check check = MakeCheck(model);
    ASSERT_EQ(check.neverOpened.size(), 1U);
    EXPECT_EQ(check.neverOpened[0].context, 3U);
    EXPECT_EQ(model.names[check.neverOpened[0].parent], "request");
    ASSERT_EQ(check.openAtEnd.size(), 2U);
    EXPECT_EQ(check.openAtEnd[0].context, 2U);
    EXPECT_EQ(model.names[check.openAtEnd[0].name], "request");
    EXPECT_EQ(model.names[check.openAtEnd[0].scope], "innermost");
    EXPECT_EQ(check.openAtEnd[1].scope, noName);
    EXPECT_EQ(check.unmatchedScopes, 0U);
    EXPECT_FALSE(check.IsWell());
    EXPECT_TRUE(MakeCheck(LoadTexts({Recording().Text()})).IsWell()) << "the client's own is none";
    const std::string whole = Recording().Text();
    for (const char* const one : {"1,1.0,0,2,0,2\n", "1,1.0,0,3,0,2\n", "1,1.0,1,6,x,0\n", "x\n",
                                  "1,1.0,0,7,lost,1\n", "1"})
        EXPECT_FALSE(MakeCheck(LoadTexts({whole + one})).IsWell()) << one;
}

TEST(SlowTest, ShowsTheSlowestAsTrees) {
    Known known;
    const Model model = LoadTexts({Schedule(3, 40, known)});
    std::vector<std::uint64_t> all = known.requests["get"];
    all.insert(all.end(), known.requests["put"].begin(), known.requests["put"].end());
    std::sort(all.rbegin(), all.rend());
    const std::vector<ContextTree> trees = FindSlow(model, 3);
    ASSERT_EQ(trees.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(trees[i].context->Duration(), all[i]);
    ASSERT_EQ(trees[0].scopes.size(), 1U); // its own, in which is the other
    ASSERT_EQ(trees[0].scopes[0].scopes.size(), 1U);
    EXPECT_EQ(model.names[trees[0].scopes[0].scopes[0].scope->label], "parse");
    ASSERT_EQ(trees[0].children.size(), 2U);
    EXPECT_EQ(model.names[trees[0].children[1].context->name], "task");
    EXPECT_EQ(FindTree(model, trees[0].children[1].context->id)->context,
              trees[0].children[1].context);
    EXPECT_FALSE(FindTree(model, 1'000'000));

    // What was never opened stands last; a chain of any length does no harm.
    Recording recording;
    recording.Open(1, 2, 0);
    recording.Create(2, 3, 2);
    recording.Create(3, 4, 2);
    recording.Open(4, 4, 2);
    for (Recording::Id id = 5; id < 100'000; ++id)
        recording.Open(5, id, id - 1);
    const Model other = LoadTexts({recording.Text()});
    EXPECT_TRUE(FindSlow(other, 5).empty()); // not whole
    const ContextTree tree = FindTree(other, 2).value();
    ASSERT_EQ(tree.children.size(), 2U);
    EXPECT_EQ(tree.children[0].context->id, 4U);
    EXPECT_EQ(tree.children[1].context->id, 3U);
}

TEST(TopTest, CountsWhatCameSinceTheLastLook) {
    Recording recording;
    recording.Create(10, 2, 1);
    recording.Open(10, 2, 1);
    recording.Use(10, 2, "get", 1);
    recording.Begin(20, 2, "work");
    recording.Begin(20, 2, "work");
    const TemporaryFile file(recording.Text());
    const std::unique_ptr<Reader> reader = OpenCsv(file.Path());
    TopFollower follower;
    EventBatch batch;
    const auto look = [&] {
        while (reader->Read(batch))
            for (const Event& event : batch.events)
                follower.Add(event);
        return follower.Take();
    };
    Top top = look();
    EXPECT_EQ(top.events, 10U);
    EXPECT_EQ(top.interval, 20U);
    ASSERT_EQ(top.inFlight.size(), 1U);
    EXPECT_EQ(top.inFlight[0].name, "get");
    EXPECT_EQ(top.inFlight[0].scope, "work");
    EXPECT_EQ(top.inFlight[0].age, 10U);

    // The file grows, in the middle of a line at first.
    Recording more;
    more.End(40, 2, "work");
    more.End(50, 2, "work");
    more.Create(55, 3, 2);
    more.End(60, 2, "get");
    more.Close(60, 2, 1);
    const std::string text = more.Text().substr(Recording().Text().size());
    std::ofstream out(file.Path(), std::ios::app | std::ios::binary);
    out << text.substr(0, 20) << std::flush;
    EXPECT_EQ(look().events, 0U);
    out << text.substr(20) << std::flush;
    top = look();
    EXPECT_EQ(top.events, 5U);
    EXPECT_EQ(top.interval, 40U);
    EXPECT_EQ(top.requestsEnded, 1U);
    EXPECT_EQ(top.waiting, 1U);
    EXPECT_TRUE(top.inFlight.empty());
    ASSERT_EQ(top.labels.size(), 2U);
    EXPECT_EQ(top.labels[0].label, "get");
    EXPECT_EQ(top.labels[1].max, 30U);
    EXPECT_EQ(top.labels[1].ended, 2U);
    EXPECT_EQ(top.labels[1].total, 30U); // the inner one is part of it
}

TEST(TopTest, DoesNotWaitForWhatAPipeDoesNotHave) {
    const std::string path = "tools-" + std::to_string(getpid()) + ".fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::fstream writer(path); // both ways, so that nobody waits
    const std::string text = Recording().Text();
    writer << text << std::flush;
    const std::unique_ptr<Reader> reader = OpenCsv(path, true);
    std::remove(path.c_str());
    EventBatch batch;
    ASSERT_TRUE(reader->Read(batch));
    EXPECT_EQ(batch.events.size(), 2U);
    EXPECT_FALSE(reader->Read(batch));
    writer << "9,1.000000,0,4,0,1\n" << std::flush;
    EXPECT_TRUE(reader->Read(batch));
}

} // namespace Metrics::tools::test
