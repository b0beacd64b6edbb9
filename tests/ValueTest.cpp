#include "support/Exercise.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>

namespace Metrics::test {

using Kind = MetricsValue::Kind;
using namespace MetricsBitsUtils;

static_assert(!std::is_constructible_v<MetricsValue, int*> &&
              !std::is_constructible_v<MetricsValue, const void*> &&
              std::is_constructible_v<MetricsValue, char*>);

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

    const auto text = [](const MetricsValue& value) {
        return value.kind == Kind::String ? *value.text : "not a text";
    };
    std::string taken(100, 'x');
    const char* const characters = taken.data();
    EXPECT_EQ(text("'pid'"), "'pid'");
    EXPECT_EQ(text(static_cast<const char*>(nullptr)), "");
    EXPECT_EQ(text(std::string_view("viewed").substr(0, 4)), "view");
    EXPECT_EQ(text(std::as_const(taken)), taken);
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
    const List lists[] = {
        {"all,highvol", 0xFFFFFFFFFFFF1000, ""},     {"act,net", 0x40010000, ""},
        {"act,all", 0xFFFFFFFFFFFF0000, ""},         {"", 0, ""},
        {"foo,bar,act,foo", 0x10000, "foo,bar,foo"}, {"act, net", 0x10000, " net"},
        {",act,,net,act,", 0x40010000, ""},          {"ACT,Act", 0, "ACT,Act"},
        {"foo,,act,net", 0x40010000, "foo,"},        {"ac,actt", 0, "ac,actt"}};
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
