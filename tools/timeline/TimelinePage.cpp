#include "TimelinePage.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <zlib.h>

namespace Metrics::tools {

/// Made from page.html when this is built.
extern const std::string_view timelinePage;

namespace {

constexpr std::string_view dataMark = "@DATA@";
constexpr std::int64_t billion = 1'000'000'000;

/// Small numbers for small differences, of either sign.
constexpr std::uint64_t ZigZag(std::int64_t number) {
    return static_cast<std::uint64_t>(number) << 1 ^ static_cast<std::uint64_t>(number >> 63);
}

/// Packs columns of numbers, which `load` in page.html takes off again in the same order. A number
/// has seven bits in each byte, the low ones first; all of its bytes but the last have the eighth.
class Columns {
public:
    /// A column of `number(item)` for all items.
    template <class Items, class Number>
    void Add(const Items& items, Number number) {
        Put(items.size());
        for (const auto& item : items)
            Put(static_cast<std::uint64_t>(number(item)));
    }

    void Add(std::initializer_list<std::uint64_t> numbers) {
        Add(numbers, [](std::uint64_t number) { return number; });
    }

    template <class Items, class Byte>
    void AddBytes(const Items& items, Byte byte) {
        Put(items.size());
        for (const auto& item : items)
            m_bytes += static_cast<char>(byte(item));
    }

    void AddTexts(const std::vector<std::string_view>& texts) {
        Add(texts, [](std::string_view text) { return text.size(); });
        std::size_t size = 0;
        for (const std::string_view text : texts)
            size += text.size();
        Put(size);
        for (const std::string_view text : texts)
            m_bytes += text;
    }

    const std::string& Bytes() const { return m_bytes; }

private:
    void Put(std::uint64_t number) {
        for (; number > 127; number >>= 7)
            m_bytes += static_cast<char>(number | 128);
        m_bytes += static_cast<char>(number);
    }

    std::string m_bytes;
};

void AddSlices(const Timeline& timeline, Columns& columns) {
    using Slice = Timeline::Slice;
    columns.Add(timeline.trackSizes, [](Index size) { return size; });

    // In a track each slice is told by its distance from the one before.
    std::vector<std::uint64_t> gaps;
    gaps.reserve(timeline.slices.size());
    std::size_t next = 0;
    for (const Index size : timeline.trackSizes) {
        std::uint64_t end = 0;
        for (const std::size_t stop = next + size; next < stop; ++next) {
            gaps.push_back(timeline.slices[next].begin - end);
            end = timeline.slices[next].end;
        }
    }
    columns.Add(gaps, [](std::uint64_t gap) { return gap; });
    columns.Add(timeline.slices, [](const Slice& slice) { return slice.end - slice.begin; });
    columns.Add(timeline.slices, [](const Slice& slice) { return slice.label; });
    columns.AddBytes(timeline.slices, [](const Slice& slice) { return slice.kind; });
    std::int64_t last = 0;
    columns.Add(timeline.slices, [&last](const Slice& slice) {
        const std::int64_t step = slice.context - last;
        last = slice.context;
        return ZigZag(step);
    });
}

void AddContexts(const Timeline& timeline, Columns& columns) {
    using Context = Timeline::Context;
    std::uint64_t last = 0;
    columns.Add(timeline.contexts, [&last](const Context& context) {
        const auto step = static_cast<std::int64_t>(context.id - last);
        last = context.id;
        return ZigZag(step);
    });
    // Others are told by how far they stand before, and none as one before the first.
    const auto addOthers = [&](Index Context::*other) {
        std::int64_t here = 0;
        columns.Add(timeline.contexts, [&](const Context& context) {
            const std::int64_t place = context.*other == none ? -1 : std::int64_t{context.*other};
            return ZigZag(here++ - place - 1);
        });
    };
    addOthers(&Context::parent);
    addOthers(&Context::request);
    columns.Add(timeline.contexts, [](const Context& context) {
        return context.wait == never ? 0 : context.wait + 1;
    });
}

void AddFacts(const Timeline& timeline, Columns& columns) {
    using Attribute = Timeline::Attribute;
    using CustomEvent = Timeline::CustomEvent;
    columns.Add(timeline.contexts, [](const auto& context) { return context.attributeCount; });
    columns.Add(timeline.attributes, [](const Attribute& attribute) { return attribute.name; });
    columns.Add(timeline.attributes, [](const Attribute& attribute) { return attribute.value; });
    columns.Add(timeline.contexts, [](const auto& context) { return context.customCount; });
    columns.Add(timeline.customs, [](const CustomEvent& event) { return ZigZag(event.time); });
    columns.Add(timeline.customs, [](const CustomEvent& event) { return event.first; });
    columns.Add(timeline.customs, [](const CustomEvent& event) { return event.second; });
}

std::string Pack(const Timeline& timeline) {
    Columns columns;
    columns.Add({timeline.duration, static_cast<std::uint64_t>(timeline.wallStart / billion),
                 static_cast<std::uint64_t>(timeline.wallStart % billion), timeline.allRequests});
    columns.AddTexts(timeline.texts);
    std::vector<std::uint64_t> numbers;
    for (const Timeline::Process& process : timeline.processes)
        numbers.insert(numbers.end(), {process.path, static_cast<std::uint64_t>(process.pid + 1)});
    columns.Add(numbers, [](std::uint64_t number) { return number; });
    numbers.clear();
    for (const Timeline::Lane& lane : timeline.lanes)
        numbers.insert(numbers.end(),
                       {lane.process, static_cast<std::uint64_t>(lane.tid - Timeline::neverOpened),
                        lane.trackCount});
    columns.Add(numbers, [](std::uint64_t number) { return number; });
    AddSlices(timeline, columns);
    AddContexts(timeline, columns);
    AddFacts(timeline, columns);
    columns.AddBytes(timeline.busy, [](std::uint8_t busy) { return busy; });
    return columns.Bytes();
}

std::string Deflate(const std::string& bytes) {
    uLongf size = compressBound(bytes.size());
    std::string packed(size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
                  reinterpret_cast<const Bytef*>(bytes.data()), bytes.size(),
                  Z_DEFAULT_COMPRESSION) != Z_OK)
        throw std::runtime_error("cannot pack the timeline");
    packed.resize(size);
    return packed;
}

/// As text that no browser takes for markup.
std::string Base64(std::string_view bytes) {
    constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k)
            bits = bits << 8 | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            text += k <= count ? digits[bits >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

} // namespace

std::string TimelinePage(const Timeline& timeline) {
    const std::size_t place = timelinePage.find(dataMark);
    std::string page(timelinePage.substr(0, place));
    page += Base64(Deflate(Pack(timeline)));
    page += timelinePage.substr(place + dataMark.size());
    return page;
}

void WriteTimelinePage(const Timeline& timeline, const std::string& path) {
    const std::string page = TimelinePage(timeline);
    std::ofstream file;
    if (path != "-")
        file.open(path, std::ios::binary);
    std::ostream& out = path == "-" ? std::cout : file;
    out << page << std::flush;
    if (!out)
        throw std::system_error(errno, std::generic_category(), "cannot write '" + path + "'");
}

} // namespace Metrics::tools
