#include "CsvLine.h"
#include "support/Exercise.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <unistd.h>

#include <bit>
#include <cfloat>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <locale>
#include <random>
#include <stdexcept>
#include <vector>

namespace Metrics::test {

static const std::string header = "timestamp,datetime,context_id,event_type,param1,param2\n";

struct ForeignNumbers : std::numpunct<char> {
    std::string do_grouping() const override { return "\1"; }
};

TEST(CsvLine, HasTheSameBytesInEveryLocale) {
    const std::string cut("cut\0\"off\n", 9);
    std::vector<std::pair<MetricsValue, std::string>> rows = {
        {INT64_MIN, "-9223372036854775808"},
        {"it's", "it's"},
        {true, "true"},
        {1e20, "100000000000000000000.000000"},
        {"'it's'", "its"},
        {"two\nlines\n", R"("two""lines""")"},
        {"'", ""},
        {false, "false"},
        {"'a \"b\" c'", R"("a ""b"" c")"},
        {"\"'\"", R"("""'""")"},
        {{}, "0"},
        {"a, b;\r\xff", "a, b;\r\xff"},
        {"", ""},
        {cut, "cut"},
        {-0.0000004, "-0.000000"}};
    std::vector<double> numbers = {-0.0,    0.0078125, 0.0234375, 0.9999995, 999999.9999995,
                                   DBL_MAX, -DBL_MAX,  DBL_MIN,   -INFINITY, NAN};
    std::mt19937_64 random(1);
    while (numbers.size() < 10'000) {
        numbers.push_back(std::bit_cast<double>(random()));
        numbers.push_back(std::ldexp(random() % 1'000'000, -static_cast<int>(random() % 40)));
    }
    for (const double number : numbers) // in the locale "C" still
        rows.emplace_back(number, std::to_string(number));
    MetricsValue odd(256); // as a Boolean, which is its first byte; as a String; as nothing
    for (const auto& [kind, field] : {std::pair(1, "false"), {3, ""}, {4, ""}, {-1, ""}}) {
        odd.kind = static_cast<MetricsValue::Kind>(kind);
        rows.emplace_back(odd, field);
    }
    std::locale::global(std::locale(std::locale::classic(), new ForeignNumbers));
    const std::string name = "de" + std::to_string(getpid()), path = testing::TempDir() + name;
    setenv("LOCPATH", testing::TempDir().c_str(), 1);
    ASSERT_EQ(std::system(("localedef -i de_DE -f UTF-8 " + path).c_str()), 0) << "of locales";
    EXPECT_NE(std::setlocale(LC_ALL, name.c_str()), nullptr);
    EXPECT_EQ(std::system(("rm -rf " + path).c_str()), 0);
    detail::CsvLine line;
    MetricsEvent event{MetricsEventType::Attribute, 5, 17, 6, 1234567890, 1463000000, 42, {}, {}};
    for (const auto& [value, field] : rows) {
        event.param1 = event.param2 = value;
        EXPECT_EQ(line.Render(event),
                  "1234567890,1463000000.000042,17,8," + field + ',' + field + '\n');
    }
    event = {static_cast<MetricsEventType>(-9), 0, ~0ul, 0, 0, 0, 999999, "x", {}};
    EXPECT_EQ(line.Render(event), "0,0.999999,18446744073709551615,-9,x,0\n");
}

TEST(CsvLine, HasRoomForTheLongestFieldAndGivesItBack) {
    MetricsEvent event;
    event.param1 = std::string(300'000, '"');
    event.param2 = -DBL_MAX;
    detail::CsvLine line;
    const std::string_view quotes = line.Render(event);
    EXPECT_EQ(quotes, "0,0.000000,0,0," + std::string(600'002, '"') + ',' +
                          std::to_string(-DBL_MAX) + '\n');
    // The line stands where its memory begins: it must end in there.
    EXPECT_GE(malloc_usable_size(const_cast<char*>(quotes.data())), quotes.size());

    const auto inUse = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    event.param1 = std::string(10 << 20, '\n');
    line.Render(event);
    const std::size_t before = inUse(); // nothing, where a sanitizer is the allocator
    line.Shrink();
    EXPECT_LE(inUse() + (before == 0 ? 0 : 20 << 20), before);
    EXPECT_EQ(line.Render({}), "0,0.000000,0,0,0,0\n");
}

static const std::string filePath = testing::TempDir() + "raw-" + std::to_string(getpid());

/// The file, without the stamps where these look as they should.
static std::string Read() {
    std::ifstream file(filePath);
    std::string text;
    for (std::string line; std::getline(file, line);) {
        int stamps = 0;
        std::sscanf(line.c_str(), "%*[0-9],1%*[0-9].%*[0-9],%n", &stamps);
        text += line.substr(static_cast<std::size_t>(stamps)) + '\n';
    }
    return text;
}

TEST(RawClient, AdjustsTheMaskByItsArguments) {
    constexpr std::uint64_t act = MetricsBits::act, net = MetricsBits::net, cmd = MetricsBits::cmd;
    constexpr std::uint64_t usual = 0xFFFFFFDFFFFF0000;
    const struct {
        std::vector<std::string> arguments;
        std::uint64_t before, after, again; // the mask at each of two Opens, and what it becomes
    } rows[] = {{{}, 0x1000, usual | 0x1000, usual | 0x1000},
                {{"-setabs=act", "-set=net"}, cmd, net | cmd, net | cmd},
                {{"-set=net", "-setabs=act,bogus"}, cmd, act, act},
                {{"-setabs=act", "-set=bogus"}, cmd, usual | cmd, usual | cmd},
                {{"-set=act,net", "-clear=net"}, net | cmd, act | net | cmd, act | net | cmd},
                {{"-setabs=act", "-clear=act"}, act | cmd, 0, cmd}, // then nothing is left to set
                {{"-clear=net", "-clear=act"}, act | net, net, net}};
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        MetricsRawClient client;
        EXPECT_TRUE(client.ProcessArgument("-raw=" + filePath));
        for (const std::string& argument : row.arguments)
            EXPECT_TRUE(client.ProcessArgument(argument));
        for (const char* other : {"", "-raw", "-RAW=x", "--set=cmd", " -set=cmd", "-clear", "cmd"})
            EXPECT_FALSE(client.ProcessArgument(other));
        for (const std::uint64_t after : {row.after, row.again}) {
            Manager().SetBitsAbsolute(row.before);
            EXPECT_TRUE(client.Open());
            client.Close();
            EXPECT_EQ(Manager().SetBits(0), after);
        }
    }
    std::remove(filePath.c_str());
}

TEST(RawClient, TakesTheApplicationsOwnMnemonics) {
    const auto own = [](std::string_view mnemonic) -> std::uint64_t {
        return mnemonic == "billing" ? 1ul << 50
               : mnemonic == "often" ? 1ul << 13
               : mnemonic == "act"   ? 1ul << 51
                                     : 0;
    };
    const struct {
        std::vector<std::string> arguments;
        std::uint64_t after;                                                      // 1 << 52 before
    } rows[] = {{{"-set=billing,act"}, 1ul << 50 | MetricsBits::act | 1ul << 52}, // act is known
                {{"-setabs=billing,bogus"}, 1ul << 50},
                {{"-setabs=often"}, 1ul << 13},
                {{"-set=net,billing", "-clear=billing"}, MetricsBits::net | 1ul << 52},
                {{"-set=billing", "-set=net"}, MetricsBits::net | 1ul << 52}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arguments[0]);
        MetricsRawClient client;
        EXPECT_TRUE(client.ProcessArgument("-raw=/dev/null", own));
        EXPECT_FALSE(client.ProcessArgument("billing", own));
        for (const std::string& argument : row.arguments)
            EXPECT_TRUE(client.ProcessArgument(argument, own));
        Manager().SetBitsAbsolute(1ul << 52);
        EXPECT_TRUE(client.Open());
        EXPECT_EQ(Manager().SetBits(0), row.after);
    }
    EXPECT_EQ(MetricsBitsUtils::ValidateMnemonicList("billing,bogus,,act", own), "bogus,");
    EXPECT_EQ(MetricsBitsUtils::GetMetricsBitsFromMnemonicList(
                  "x", [](std::string_view) { return 0xFFFul; }),
              0u)
        << "is no category";
}

TEST(RawClient, SaysThatAConsumerKeptItFromOpening) {
    bool throws = true;
    const Session session;
    Consume(true, [&throws](const MetricsEvent&) {
        if (throws)
            throw 42;
    });
    MetricsRawClient client;
    client.SetOutputFileName("/dev/null");
    std::error_code error;
    EXPECT_FALSE(client.Open(error));
    EXPECT_EQ(error, std::errc::operation_canceled);
    throws = false;
    EXPECT_TRUE(client.Open(error));
    EXPECT_FALSE(error);
}

TEST(RawClient, WritesWhatHappensWhileItIsOpen) {
    MetricsRawClient client;
    EXPECT_TRUE(client.ProcessArgument("-raw=x") && client.ProcessArgument("-raw="));
    EXPECT_FALSE(client.Open()) << "without a name";
    std::ofstream(filePath) << "something old";
    EXPECT_TRUE(Open(client, filePath)) << "not enabled"; // 1
    client.Close();
    EXPECT_EQ(Read(), header);
    Manager().SetBitsAbsolute(0);
    client.SetOutputFileName(filePath + "/missing/file");
    Manager().Enable();
    EXPECT_THROW(client.Open(), std::runtime_error);
    EXPECT_EQ(Manager().SetBits(0), 0u);
    client.SetOutputFileName(filePath);
    EXPECT_TRUE(client.Open()); // 2
    EXPECT_TRUE(client.Open()); // 3
    EXPECT_TRUE(client.Open()); // 4, with the file truncated
    Manager().GetCurrentThreadContext()->Emit("'a'", 1234.5);
    Scope("b\nc", MetricsBits::rpipe | MetricsBits::act).Emit(true, 1234567);
    Manager().SetBits(MetricsBits::highvol);
    Attribute("highvol", "passes", MetricsBits::highvol);
    client.Close();
    Send(0);
    Flush();
    const std::string id = std::to_string(getpid());
    EXPECT_EQ(Read(), header + "0,2,0,4\n0,3,0,4\n4,8,pid," + id + "\n4,8,tid," + id + R"(
4,8,cid,4
4,5,cxt,0
4,7,a,1234.500000
4,5,"b""c",0
4,7,true,1234567
4,6,"b""c",0
4,8,highvol,passes
4,6,cxt,0
0,4,0,4
)");
    EXPECT_TRUE(client.Open()); // 5
    EXPECT_TRUE(Manager().Disable());
    EXPECT_FALSE(client.Close(1000)) << "it cannot know that all is in the file";
    EXPECT_EQ(Read(), header + "0,2,0,5\n0,3,0,5\n");
    std::remove(filePath.c_str());
}

} // namespace Metrics::test
