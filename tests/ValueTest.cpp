#include "support/Exercise.h"

#include <gtest/gtest.h>

#include <atomic>
#include <bitset>
#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <vector>

namespace Metrics::test {

using Kind = MetricsValue::Kind;
using namespace MetricsBitsUtils;

enum Signed : signed char { minusOne = -1 };
enum Unsigned : unsigned { all32 = ~0u };
enum Flag : bool { isSet = true };
enum class Scoped { nothing };

template <class T>
struct ConvertsTo {
    T value;
    operator T() { return value; } // of an object that may change, only
};
struct HasAChoice : ConvertsTo<int>, ConvertsTo<bool> {};
struct AsksFirst {
    explicit operator bool() const { return true; }
};

template <class... T>
constexpr bool areTaken = (std::is_convertible_v<T, MetricsValue> && ...);
template <class... T>
constexpr bool areRefused = !(std::is_constructible_v<MetricsValue, T> || ...);

static_assert(
    areTaken<int, const volatile int&, char, wchar_t, char16_t, char32_t, bool, float, double,
             char*, std::nullptr_t, std::string&, const std::string, std::string_view>);
static_assert(areTaken<Signed, Unsigned, Flag, decltype(MetricsBits::act)>);
static_assert(areTaken<std::atomic<int>&, const volatile std::atomic<long>&, std::atomic<double>&,
                       std::atomic<bool>&, std::atomic<Signed>&, std::reference_wrapper<short>>);
static_assert(areTaken<std::vector<bool>::reference, std::bitset<8>::reference, std::true_type>);
static_assert(areRefused<int*, const void*, void (*)(), void (&)(), int Listener::*, long double,
                         Scoped, std::byte, const wchar_t*>);
static_assert(areRefused<HasAChoice, AsksFirst, ConvertsTo<int*>&, ConvertsTo<void (*)()>&,
                         ConvertsTo<long double>&, ConvertsTo<Scoped>&, const ConvertsTo<int>&,
                         std::unique_ptr<int>, std::atomic<void*>&, std::function<void()>,
                         std::optional<int>, decltype([](int) {}), Listener&>);

TEST(Value, HasTheKindAndTheBitsOfItsArgument) {
    const auto is = [](const MetricsValue& value, Kind kind, std::uint64_t bits) {
        const bool isNumber = value.text == nullptr && value.extra == nullptr;
        return isNumber && value.kind == kind && std::memcmp(&value.integer, &bits, 8) == 0;
    };
    constexpr Kind I = Kind::Integer, B = Kind::Boolean, D = Kind::Double;
    EXPECT_TRUE(is({}, I, 0) && is(-1, I, ~0ul) && is(~0u, I, 4294967295));
    EXPECT_TRUE(is(-3l, I, ~2ul) && is(~0ul, I, ~0ul) && is(~1ull, I, ~1ul));
    EXPECT_TRUE(is(LLONG_MIN, I, 1ul << 63) && is('a', I, 97) && is(u'\uFFFF', I, 65535));
    EXPECT_TRUE(is(std::int8_t{-8}, I, ~7ul) && is(std::uint8_t{255}, I, 255));
    EXPECT_TRUE(is(true, B, 1) && is(false, B, 0));
    EXPECT_TRUE(is(0.5, D, 0x3FE0000000000000) && is(0.5f, D, 0x3FE0000000000000));

    struct {
        unsigned three : 3;
        int minus : 4;
        bool flag : 1;
        Signed one : 2;
    } fields{7, -5, true, minusOne};
    EXPECT_TRUE(is(fields.three, I, 7) && is(fields.minus, I, ~4ul) && is(fields.flag, B, 1));
    EXPECT_TRUE(is(fields.one, I, ~0ul) && is(minusOne, I, ~0ul) && is(all32, I, 4294967295));
    EXPECT_TRUE(is(isSet, B, 1) && is(MetricsBits::all, I, MetricsBits::all));

    std::atomic<int> number(-7);
    std::atomic<unsigned> natural(~0u);
    std::atomic<float> fraction(0.5f);
    std::vector<bool> flags{true, false};
    ConvertsTo<short> converts{-2};
    ConvertsTo<bool> set{true};
    EXPECT_TRUE(is(number, I, ~6ul) && is(natural, I, 4294967295));
    EXPECT_TRUE(is(fraction, D, 0x3FE0000000000000) && is(std::ref(converts.value), I, ~1ul));
    EXPECT_TRUE(is(flags[0], B, 1) && is(flags[1], B, 0) && is(converts, I, ~1ul));
    EXPECT_TRUE(is(set, B, 1));

    const auto text = [](const MetricsValue& value) {
        return value.kind == Kind::String ? *value.text : "not a text";
    };
    std::string taken(100, 'x');
    const char* const characters = taken.data();
    EXPECT_EQ(text("'pid'"), "'pid'");
    EXPECT_EQ(text(static_cast<const char*>(nullptr)), "");
    EXPECT_EQ(text(std::string_view("viewed").substr(0, 4)), "view");
    EXPECT_EQ(text(std::as_const(taken)), taken);
    EXPECT_EQ(text(MetricsValue(std::filesystem::path("a/path"))), "a/path");
    EXPECT_EQ(text(MetricsValue(std::cref(taken))), taken);
    MetricsValue value(std::move(taken)), copy(value);
    EXPECT_EQ(value.text->data(), characters) << "copied, not taken over";
    EXPECT_EQ(copy.text, value.text);
    copy = MetricsValue(std::move(value));
    EXPECT_TRUE(value.text == nullptr && copy.text.use_count() == 1);
    EXPECT_TRUE(is(copy = -7, I, ~6ul));
}

TEST(FilterBits, LetThroughWhatSharesACategory) {
    constexpr std::uint64_t b12 = 1 << 12, b13 = 1 << 13, b63 = 1ul << 63;
    const struct {
        std::uint64_t event, mask;
        bool consumer, process;
    } rows[] = {{0xFFF, 0, true, false},      {b12, 0, false, false}, {0xFFF, b12, true, true},
                {b12 + b13, b13, true, true}, {b63, b63, true, true}, {1 + b12, 1, false, false},
                {b63, ~b63, false, false},    {0, 0, true, false},    {0, b12, true, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        Manager().SetBitsAbsolute(row.mask);
        EXPECT_EQ(TestBits(row.event, row.mask), row.consumer);
        EXPECT_EQ(TestBits(row.event), row.process);
    }
}

TEST(Mnemonics, NameTheBits) {
    std::istringstream names("act cache cmd comp edit fltr flex flexlog geosearch lay log ldi mdx "
                             "misc net parse pipe proto query queryd rend rpipe sql test1 test2 "
                             "kel viz tel kelstor kelstorhigh kelexec kelmeta kelopt kelflow");
    int bit = 16;
    for (std::string name; names >> name; ++bit)
        EXPECT_EQ(GetMetricsBitsFromMnemonicList(name), 1ul << bit) << name;
    EXPECT_EQ(bit, 50);

    using List = std::tuple<const char*, std::uint64_t, const char*>;
    const List lists[] = {{"all,highvol", 0xFFFFFFFFFFFF1000, ""},
                          {"act,net", 0x40010000, ""},
                          {"act,all", 0xFFFFFFFFFFFF0000, ""},
                          {"", 0, ""},
                          {"foo,bar,act,foo", 0x10000, "foo,bar,foo"},
                          {"act, net", 0x10000, " net"},
                          {",act,,net,act,", 0x40010000, ""},
                          {"ACT,Act", 0, "ACT,Act"},
                          {"foo,,act,net", 0x40010000, "foo,"},
                          {"ac,actt", 0, "ac,actt"},
                          {"nosuch,", 0, "nosuch,"}};
    for (const auto& [list, bits, unknown] : lists) {
        EXPECT_EQ(GetMetricsBitsFromMnemonicList(list), bits) << list;
        EXPECT_EQ(ValidateMnemonicList(list), unknown) << list;
    }
    EXPECT_EQ(MetricsBitsToMnemonicList(0xEFFF), "");
    EXPECT_EQ(MetricsBitsToMnemonicList(1ul << 50), "all");
    EXPECT_EQ(MetricsBitsToMnemonicList(everyBit),
              "act,all,cache,cmd,comp,edit,flex,flexlog,fltr,geosearch,highvol,kel,kelexec,kelflow,"
              "kelmeta,kelopt,kelstor,kelstorhigh,lay,ldi,log,mdx,misc,net,parse,pipe,proto,query,"
              "queryd,rend,rpipe,sql,tel,test1,test2,viz");
}

} // namespace Metrics::test
