#include "CsvLine.h"
#include "support/Transcript.h"

#include <bit>
#include <cfloat>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <locale>
#include <random>
#include <regex>
#include <stdexcept>
#include <vector>

namespace Metrics::Testing {

static const std::string header = "timestamp,datetime,context_id,event_type,param1,param2\n";

struct ForeignNumbers : std::numpunct<char> {
    std::string do_grouping() const override { return "\1"; }
};

/// Has numbers written as elsewhere: in C++ alone, or in C as well, by a locale that is made here.
static void UseForeignNumbers(bool inC) {
    std::locale::global(std::locale(std::locale::classic(), new ForeignNumbers));
    if (!inC)
        return;
    const std::string name = "de" + std::to_string(getpid()), path = testing::TempDir() + name;
    setenv("LOCPATH", testing::TempDir().c_str(), 1);
    if (std::system(("localedef -i de_DE -f UTF-8 " + path + " 2>/dev/null").c_str()) != 0)
        GTEST_SKIP() << "no locale can be made here";
    ASSERT_NE(std::setlocale(LC_ALL, name.c_str()), nullptr);
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
    ASSERT_EQ(std::system(("rm -r " + path).c_str()), 0);
}

class CsvLine : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(ForeignNumbersInC, CsvLine, testing::Bool());

TEST_P(CsvLine, HasTheSameBytesInEveryLocale) {
    const auto of = [](int kind, std::int64_t payload) {
        MetricsValue value(payload);
        value.kind = static_cast<MetricsValue::Kind>(kind);
        return value;
    };
    const auto text = [](std::string_view characters) { return MetricsValue(characters); };
    using Row = std::pair<MetricsValue, std::string>;
    std::vector<Row> rows = {
        {INT64_MIN, "-9223372036854775808"},    {of(1, 0x100), "false"},   {true, "true"},
        {INT64_MAX, "9223372036854775807"},     {of(1, 0x80), "true"},     {~0ul, "-1"},
        {1e20, "100000000000000000000.000000"}, {-0.0000004, "-0.000000"}, {12345, "12345"},
        {"two\nlines\n", R"("two""lines""")"},  {false, "false"},          {-7, "-7"},
        {"'a \"b\" c'", R"("a ""b"" c")"},      {"'it's'", "its"},         {{}, "0"},
        {"say \"hi\"", R"("say ""hi""")"},      {"it's", "it's"},          {of(3, 5), ""},
        {"plain text ", "plain text "},         {"\"'\"", R"("""'""")"},   {of(4, 5), ""},
        {"a, b;\r\xff", "a, b;\r\xff"},         {"\"", R"("""")"},         {of(-1, 5), ""},
        {"'quoted text'", "quoted text"},       {text({"'\0'\"", 4}), ""}, {"", ""},
        {text({"cut\0off", 7}), "cut"},         {2.5, "2.500000"},         {"'", ""}};
    std::vector<double> numbers = {0.0,          -0.0,           0.1,       0.0078125, 0.0234375,
                                   0.9999995,    999999.9999995, DBL_MAX,   -DBL_MAX,  DBL_MIN,
                                   DBL_TRUE_MIN, INFINITY,       -INFINITY, NAN,       -NAN};
    std::mt19937_64 random(1);
    while (numbers.size() < 10'000) {
        numbers.push_back(std::bit_cast<double>(random()));
        numbers.push_back(std::ldexp(random() % 1'000'000, -static_cast<int>(random() % 40)));
    }
    for (const double number : numbers) { // in the locale "C" still
        char printed[400];
        std::snprintf(printed, sizeof printed, "%Lf", static_cast<long double>(number));
        rows.emplace_back(number, printed);
    }
    UseForeignNumbers(GetParam());
    detail::CsvLine line;
    MetricsEvent event{MetricsEventType::Attribute, 5, 17, 6, 1234567890, 1463000000, 42, {}, {}};
    for (const auto& [value, field] : rows) {
        event.param1 = event.param2 = value;
        EXPECT_EQ(line.Render(event),
                  "1234567890,1463000000.000042,17,8," + field + ',' + field + '\n');
    }
    event = {static_cast<MetricsEventType>(-9), 0, ~0ul, 0, ~0ul, ~0ul, 999999, "x", {}};
    EXPECT_EQ(line.Render(event),
              "18446744073709551615,18446744073709551615.999999,18446744073709551615,-9,x,0\n");
    EXPECT_EQ(line.Render({}), "0,0.000000,0,0,0,0\n");
}

class RawClient : public testing::Test {
protected:
    void TearDown() override { std::remove(m_path.c_str()); }

    /// The file, without the stamps where these look as they should.
    std::string Read() const {
        std::ostringstream text;
        text << std::ifstream(m_path).rdbuf();
        return std::regex_replace(text.str(), std::regex("\n[1-9][0-9]*,[1-9][0-9]*\\.[0-9]{6},"),
                                  "\n");
    }

    const std::string m_path = testing::TempDir() + "raw-" + std::to_string(getpid());
    MetricsRawClient m_client;
};

TEST_F(RawClient, AdjustsTheMaskByItsArguments) {
    constexpr std::uint64_t act = MetricsBits::act, net = MetricsBits::net, cmd = MetricsBits::cmd;
    constexpr std::uint64_t usual = 0xFFFFFFDFFFFF0000;
    const struct {
        std::vector<std::string> arguments;
        std::uint64_t before, after, again; // the mask at each of two Opens, and what it becomes
    } rows[] = {{{}, 0x1000, usual | 0x1000, usual | 0x1000},
                {{"-set=bogus", "-clear="}, 0, usual, usual},
                {{"-set=act", "-set=net"}, cmd, net | cmd, net | cmd},
                {{"-setabs=act", "-set=net"}, cmd, net | cmd, net | cmd},
                {{"-set=net", "-setabs=act,bogus"}, cmd, act, act},
                {{"-setabs=act", "-set=bogus"}, cmd, usual | cmd, usual | cmd},
                {{"-set=act,net", "-clear=net"}, net | cmd, act | net | cmd, act | net | cmd},
                {{"-setabs=act,net", "-clear=net"}, cmd, act, act},
                {{"-setabs=act", "-clear=act"}, act | cmd, 0, cmd}, // then nothing is left to set
                {{"-clear=net", "-clear=act"}, act | net, net, net}};
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        MetricsRawClient client;
        EXPECT_TRUE(client.ProcessArgument("-raw=" + m_path));
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
}

TEST_F(RawClient, WritesWhatHappensWhileItIsOpen) {
    std::ofstream(m_path) << "something old";
    m_client.SetOutputFileName(m_path);
    EXPECT_TRUE(m_client.Open()); // 1
    Send(0);
    m_client.Close();
    EXPECT_EQ(Read(), header) << "not enabled";

    std::locale::global(std::locale(std::locale::classic(), new ForeignNumbers));
    Manager().Enable();
    EXPECT_TRUE(m_client.Open()); // 2
    EXPECT_TRUE(m_client.Open()); // 3, with the file truncated
    Manager().GetCurrentThreadContext()->Emit("'a'", 1234.5);
    Scope("b\nc", MetricsBits::rpipe | MetricsBits::act).Emit(true, 1234567);
    Manager().SetBits(MetricsBits::highvol);
    Attribute("highvol", "passes", MetricsBits::highvol);
    m_client.Close();
    m_client.Close();
    Send(0);
    Flush();
    const std::string id = std::to_string(getpid());
    EXPECT_EQ(Read(), header + "0,2,0,3\n0,3,0,3\n3,8,pid," + id + "\n3,8,tid," + id + R"(
3,8,cid,3
3,5,cxt,0
3,7,a,1234.500000
3,5,"b""c",0
3,7,true,1234567
3,6,"b""c",0
3,8,highvol,passes
3,6,cxt,0
0,4,0,3
)");
    EXPECT_TRUE(m_client.Open()); // 4
    EXPECT_TRUE(Manager().Disable());
    m_client.Close();
    EXPECT_EQ(Read(), header + "0,2,0,4\n0,3,0,4\n");
}

TEST_F(RawClient, FailsToOpenWithoutATrace) {
    const auto transcript = Record();
    EXPECT_TRUE(m_client.ProcessArgument("-raw=" + m_path));
    EXPECT_TRUE(m_client.ProcessArgument("-raw="));
    EXPECT_FALSE(m_client.Open());
    for (const char* const before :
         {"\n", "\nCreated 1 in 0: 0, 1\nOpened 1 in 0: 0, 1\nClosed 1 in 0: 0, 1\n"}) {
        Manager().SetBitsAbsolute(MetricsBits::net);
        m_client.SetOutputFileName(m_path + "/missing/file");
        try {
            m_client.Open();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "failed to open file");
        }
        EXPECT_EQ(Manager().SetBits(0), +MetricsBits::net);
        EXPECT_EQ(transcript->Take(), before) << "closed first, and nothing was opened";
        EXPECT_EQ(Manager().GetCurrentThreadContext(), nullptr);
        m_client.SetOutputFileName(m_path);
        EXPECT_TRUE(m_client.Open());
    }
}

} // namespace Metrics::Testing
