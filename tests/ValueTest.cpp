#include "support/Transcript.h"

#include <korsys/TReadWriteLock.h>

#include <climits>
#include <cstring>
#include <stdexcept>

namespace Metrics::Testing {

using Kind = MetricsValue::Kind;
using namespace MetricsBitsUtils;

enum class Enumeration { Value };
template <class... T>
constexpr bool noneMakesAValue = (!std::is_constructible_v<MetricsValue, T> && ...);
static_assert(noneMakesAValue<int*, const int*, void*, const void*, unsigned char*, wchar_t*,
                              MetricsEvent*, void (*)(), Enumeration, long double>);

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
    EXPECT_TRUE(is(std::int16_t{-8}, I, ~7ul) && is(std::uint16_t{65535}, I, 65535));
    EXPECT_TRUE(is(true, B, 1) && is(false, B, 0));
    EXPECT_TRUE(is(0.5, D, 0x3FE0000000000000) && is(0.5f, D, 0x3FE0000000000000));

    const auto text = [](const MetricsValue& value) {
        return value.kind == Kind::String ? *value.text : "not a text";
    };
    char writable[] = "writable";
    std::string taken(100, 'x');
    const char* const characters = taken.data();
    EXPECT_EQ(text("'pid'"), "'pid'");
    EXPECT_EQ(text(writable), "writable");
    EXPECT_EQ(text(static_cast<const char*>(nullptr)), "");
    EXPECT_EQ(text(std::string_view("viewed").substr(0, 4)), "view");
    EXPECT_EQ(text(std::as_const(taken)), taken);
    EXPECT_EQ(MetricsValue(std::move(taken)).text->data(), characters) << "copied, not taken over";
}

TEST(Value, SharesItsTextWithCopiesAndLosesItToMoves) {
    MetricsValue value("text");
    value.extra = std::make_shared<int>(5);
    const std::string* const text = value.text.get();
    MetricsValue copy(value);
    EXPECT_TRUE(copy.text.get() == text && copy.extra == value.extra);
    EXPECT_EQ(value.text.use_count(), 2);
    copy = MetricsValue(std::move(value));
    EXPECT_TRUE(value.kind == Kind::String && value.text == nullptr && value.extra == nullptr);
    EXPECT_TRUE(copy.text.get() == text && copy.text.use_count() == 1);
    value = copy;
    copy = -7;
    EXPECT_EQ(copy.text, nullptr);
    EXPECT_EQ(*value.text, "text");
}

TEST(FilterBits, LetThroughWhatSharesACategory) {
    constexpr std::uint64_t b12 = 1 << 12, b13 = 1 << 13, b63 = 1ul << 63;
    const struct {
        std::uint64_t event, mask;
        bool consumer, process;
    } rows[] = {{0, 0, true, false},    {0xFFF, 0, true, false},      {b12, 0, false, false},
                {b12, b12, true, true}, {0xFFF, b12, true, true},     {b13, b12, false, false},
                {0, b12, true, true},   {b12 + b13, b13, true, true}, {b13, 0xFFF, false, false},
                {0, 1, true, true},     {1, 1, true, true},           {1 + b12, 1, false, false},
                {b63, b63, true, true}, {b63, ~b63, false, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        Manager().SetBitsAbsolute(row.mask);
        EXPECT_EQ(TestBits(row.event, row.mask), row.consumer);
        EXPECT_EQ(TestBits(row.event), row.process);
    }
    Manager().SetBitsAbsolute(0);
    EXPECT_EQ(Manager().SetBits(b12), 0u);
    EXPECT_EQ(Manager().SetBits(b13), b12);
    Manager().ClearBits(b12);
    EXPECT_EQ(Manager().SetBits(0), b13);
}

TEST(Mnemonics, NameTheBits) {
    const std::pair<const char*, int> names[] = {
        {"highvol", 12},     {"act", 16},     {"cache", 17},   {"cmd", 18},     {"comp", 19},
        {"edit", 20},        {"fltr", 21},    {"flex", 22},    {"flexlog", 23}, {"geosearch", 24},
        {"lay", 25},         {"log", 26},     {"ldi", 27},     {"mdx", 28},     {"misc", 29},
        {"net", 30},         {"parse", 31},   {"pipe", 32},    {"proto", 33},   {"query", 34},
        {"queryd", 35},      {"rend", 36},    {"rpipe", 37},   {"sql", 38},     {"test1", 39},
        {"test2", 40},       {"kel", 41},     {"viz", 42},     {"tel", 43},     {"kelstor", 44},
        {"kelstorhigh", 45}, {"kelexec", 46}, {"kelmeta", 47}, {"kelopt", 48},  {"kelflow", 49}};
    for (const auto& [name, bit] : names)
        EXPECT_EQ(GetMetricsBitsFromMnemonicList(name), 1ul << bit) << name;

    using List = std::tuple<const char*, std::uint64_t, const char*>;
    const List lists[] = {
        {"all,highvol", 0xFFFFFFFFFFFF1000, ""},     {"act,net", 0x40010000, ""},
        {"act,all", 0xFFFFFFFFFFFF0000, ""},         {"act,act", 0x10000, ""},
        {"foo,bar,act,foo", 0x10000, "foo,bar,foo"}, {"act, net", 0x10000, " net"},
        {",act,,net,act,", 0x40010000, ""},          {"ACT,Act", 0, "ACT,Act"},
        {"foo,,act,net", 0x40010000, "foo,"},        {"ac,actt", 0, "ac,actt"}};
    for (const auto& [list, bits, unknown] : lists) {
        EXPECT_EQ(GetMetricsBitsFromMnemonicList(list), bits) << list;
        EXPECT_EQ(ValidateMnemonicList(list), unknown) << list;
    }
    EXPECT_EQ(GetMetricsBitsFromMnemonicList(""), 0u);
    EXPECT_EQ(ValidateMnemonicList(""), "");
    EXPECT_EQ(MetricsBitsToMnemonicList(0xEFFF), "");
    EXPECT_EQ(MetricsBitsToMnemonicList(0x1000), "highvol");
    EXPECT_EQ(MetricsBitsToMnemonicList(0x30000), "act,all,cache");
    EXPECT_EQ(MetricsBitsToMnemonicList(1ul << 50), "all");
    EXPECT_EQ(MetricsBitsToMnemonicList(everyBit),
              "act,all,cache,cmd,comp,edit,flex,flexlog,fltr,geosearch,highvol,kel,kelexec,kelflow,"
              "kelmeta,kelopt,kelstor,kelstorhigh,lay,ldi,log,mdx,misc,net,parse,pipe,proto,query,"
              "queryd,rend,rpipe,sql,tel,test1,test2,viz");
}

TEST(RefCntPtr, CountsItsObjectAndRefusesNull) {
    const auto token = std::make_shared<int>();
    MetricsListenerPtr first(korsys::MakeRefCnt<Consumer>([token](const MetricsEvent&) {}));
    MetricsListenerPtr second(first), third(std::move(first));
    second = third;
    EXPECT_EQ(token.use_count(), 2);
    second = third = nullptr;
    EXPECT_EQ(token.use_count(), 1);
    try {
        first->OnMetricsEvent({});
        ADD_FAILURE() << "a null pointer was dereferenced";
    } catch (const std::logic_error& error) {
        EXPECT_EQ(std::string(error.what()).substr(0, 5), "m_ptr");
    }
}

TEST(TEvent, StaysSignalledUntilReset) {
    korsys::TEvent event(false);
    EXPECT_FALSE(event.Wait(1));
    event.Signal();
    EXPECT_TRUE(event.Wait(0) && event.Wait(0));
    event.Reset();
    EXPECT_FALSE(event.Wait(0));
}

TEST(TReadWriteLock, LetsNoNewReaderOvertakeAWriter) {
    korsys::TReadWriteLock lock(0);
    bool written = false;
    lock.LockRead();
    lock.LockRead(); // readers share
    lock.UnlockRead();
    const Thread writer([&] {
        lock.Lock();
        written = true;
        lock.Unlock();
    });
    writer.UntilBlocked();
    const Thread reader([&] {
        lock.LockRead();
        EXPECT_TRUE(written);
        lock.UnlockRead();
    });
    reader.UntilBlocked();
    lock.UnlockRead();
}

} // namespace Metrics::Testing
