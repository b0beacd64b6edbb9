#include "TraceFormat.h"

#include <metrics/MetricsVersion.h>

#include <unistd.h>

#include <bit>
#include <fstream>
#include <iterator>
#include <string_view>

namespace Metrics::detail {

namespace {

constexpr std::array<const char*, traceTypes> names = {
    "unknown",      "context_created", "context_opened", "context_closed",
    "scope_opened", "scope_closed",    "custom",         "attribute"};
constexpr std::array<const char*, traceKinds> kinds = {"i64", "boolean", "f64", "text", "other"};

constexpr const char* types = R"(
typealias integer { size = 8; align = 8; signed = false; } := u8;
typealias integer { size = 16; align = 8; signed = true; } := i16;
typealias integer { size = 32; align = 8; signed = false; } := u32;
typealias integer { size = 32; align = 8; signed = true; } := i32;
typealias integer { size = 64; align = 8; signed = false; } := u64;
typealias integer { size = 64; align = 8; signed = true; } := i64;
typealias integer { size = 64; align = 8; signed = false; base = hex; } := x64;
typealias integer { size = 32; align = 8; signed = false; map = clock.up_time.value; } := stamp32;
typealias integer { size = 64; align = 8; signed = false; map = clock.up_time.value; } := stamp64;
typealias floating_point { exp_dig = 11; mant_dig = 53; align = 8; } := f64;
typealias string { encoding = UTF8; } := text;
typealias enum : u8 { "false" = 0, "true" = 1 ... 255 } := boolean;
typealias struct { i32 kind; u32 length; u8 bytes[length]; } align(8) := other;

stream {
    id = 0;
    packet.context := struct {
        u64 packet_size;
        u64 content_size;
        stamp64 timestamp_begin;
        stamp64 timestamp_end;
        u64 events_discarded;
        u64 packet_seq_num;
        u64 lag_base;
        i64 wall_base;
    };
    event.header := struct {
        u8 id;
        stamp32 timestamp;
    };
    event.context := struct {
        u32 lag;
        i16 wall;
    };
};
)";

/// In quotes, for any bytes.
std::string Quote(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
            (quoted += '\\') += c;
        else if (byte >= 0x20 && byte != 0x7F)
            quoted += c;
        else {
            quoted += '\\';
            for (int shift = 6; shift >= 0; shift -= 3)
                quoted += static_cast<char>('0' + (byte >> shift & 7));
        }
    }
    return quoted + '"';
}

std::string Hex(const TraceUuid& uuid) {
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < uuid.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text += '-';
        (text += digits[uuid[i] >> 4]) += digits[uuid[i] & 0xF];
    }
    return text;
}

std::string ReadAll(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string HostName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string ProcessName() {
    std::string name = ReadAll("/proc/self/comm");
    return name.substr(0, name.find('\n'));
}

std::string CommandLine() {
    std::string line = ReadAll("/proc/self/cmdline");
    if (!line.empty() && line.back() == '\0')
        line.pop_back();
    for (char& c : line)
        c = c == '\0' ? ' ' : c;
    return line;
}

std::string Version() {
    return std::to_string(METRICS_VERSION_MAJOR) + '.' + std::to_string(METRICS_VERSION_MINOR) +
           '.' + std::to_string(METRICS_VERSION_PATCH);
}

} // namespace

std::string DescribeTrace(const TraceUuid& uuid, std::int64_t offset) {
    constexpr std::int64_t oneSecond = 1'000'000'000;
    const std::string id = Quote(Hex(uuid));
    std::string text =
        "/* CTF 1.8 */\n\n"
        "typealias integer { size = 8; align = 8; signed = false; } := uuid_byte;\n\n"
        "trace {\n"
        "    major = 1;\n"
        "    minor = 8;\n"
        "    uuid = " +
        id +
        ";\n"
        "    byte_order = " +
        (std::endian::native == std::endian::little ? "le" : "be") +
        ";\n"
        "    packet.header := struct {\n"
        "        integer { size = 32; align = 8; signed = false; } magic;\n"
        "        uuid_byte uuid[16];\n"
        "        integer { size = 32; align = 8; signed = false; } stream_id;\n"
        "        integer { size = 64; align = 8; signed = false; } "
        "stream_instance_id;\n"
        "    };\n"
        "};\n\n"
        "env {\n"
        "    metrics_version = " + // by which TraceFile knows its own, hence before what may be
                                   // long
        Quote(Version()) +
        ";\n    hostname = " + Quote(HostName()) + ";\n    procname = " + Quote(ProcessName()) +
        ";\n    vpid = " + std::to_string(getpid()) +
        ";\n    command_line = " + Quote(CommandLine()) +
        ";\n};\n\n"
        "clock {\n"
        "    name = \"up_time\";\n"
        "    description = \"Nanoseconds since the library was loaded\";\n"
        "    freq = 1000000000;\n"
        "    precision = 1;\n"
        "    offset_s = " +
        std::to_string(offset / oneSecond) +
        ";\n    offset = " + std::to_string(offset % oneSecond) + ";\n    absolute = true;\n};\n";
    text += types;
    // A layout for each kind of first and second value, and an event of each name for each layout.
    for (unsigned type = 0; type < traceTypes; ++type)
        for (unsigned first = 0; first < traceKinds; ++first)
            for (unsigned second = 0; second < traceKinds; ++second) {
                const std::uint8_t number = TraceEventId(type, static_cast<TraceKind>(first),
                                                         static_cast<TraceKind>(second));
                text += "event { name = " + Quote(names[type]) +
                        "; id = " + std::to_string(number) + "; stream_id = 0; fields := struct {" +
                        (type == 0 ? " i32 type;" : "") +
                        " i32 tid; u64 context_id; x64 source_id; x64 bits; " + kinds[first] +
                        " param1; " + kinds[second] + " param2; }; };\n";
            }
    return text;
}

} // namespace Metrics::detail
