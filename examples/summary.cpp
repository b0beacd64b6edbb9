// Reads a CSV file of events and shows where the time went. It uses nothing of the library: all
// that it knows of the file is in docs/csv-format.md.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

enum Type { Opened = 3, ScopeOpened = 5, ScopeClosed = 6, Attribute = 8, types };

constexpr std::array<const char*, types> typeNames{"",
                                                   "Shutdown",
                                                   "ContextCreated",
                                                   "ContextOpened",
                                                   "ContextClosed",
                                                   "ScopeOpened",
                                                   "ScopeClosed",
                                                   "Custom",
                                                   "Attribute"};

// [snippet: parse]
struct Line {
    std::uint64_t timestamp = 0; // nanoseconds
    std::uint64_t context = 0;
    unsigned long type = 0;
    std::string first;
    std::string second;
};

/// The text of a field. The line feeds that it held have become double quotes for good.
std::string Unquote(const std::string& field) {
    if (field.empty() || field.front() != '"')
        return field;
    std::string text;
    for (std::size_t i = 1; i + 1 < field.size(); i += field[i] == '"' ? 2 : 1)
        text += field[i];
    return text;
}

/// Whether this is a field in quotes, from the first to the last character.
bool IsQuoted(const std::string& field) {
    if (field.empty() || field.front() != '"')
        return false;
    std::size_t i = 1;
    for (; i + 1 < field.size(); ++i)
        if (field[i] == '"' && field[++i] != '"')
            return false; // a single one would have been the end
    return i + 1 == field.size() && field.back() == '"';
}

/// The first four fields are numbers. The values are parted by the last comma that is not inside of
/// quotes: where both hold bare commas there is no telling.
Line Parse(const std::string& text) {
    std::array<std::string, 4> numbers;
    std::size_t begin = 0;
    for (std::string& number : numbers) {
        const std::size_t comma = text.find(',', begin);
        if (comma == std::string::npos)
            throw std::runtime_error("not an event: " + text);
        number = text.substr(begin, comma - begin);
        begin = comma + 1;
    }
    std::size_t middle = text.rfind(',');
    while (middle > begin && text.back() == '"' && !IsQuoted(text.substr(middle + 1)))
        middle = text.rfind(',', middle - 1);
    middle = std::max(middle, begin);
    return {std::stoull(numbers[0]), std::stoull(numbers[2]), std::stoul(numbers[3]),
            Unquote(text.substr(begin, middle - begin)),
            middle < text.size() ? Unquote(text.substr(middle + 1)) : std::string()};
}
// [end]

struct Scopes {
    std::size_t count = 0;
    double milliseconds = 0;
};

class Summary {
public:
    void Add(const Line& line) {
        m_begin = std::min(m_begin, line.timestamp);
        m_end = std::max(m_end, line.timestamp);
        if (line.type < types) // others may come with later versions
            ++m_events[line.type];
        if (line.type == Attribute && line.first == "tid")
            m_threads.insert(line.second);
        // A context's scopes are opened and closed on one thread, so those with the same label are
        // paired from the innermost.
        std::vector<std::uint64_t>& open = m_open[{line.context, line.first}];
        if (line.type == ScopeOpened)
            open.push_back(line.timestamp);
        if (line.type == ScopeClosed && !open.empty()) {
            Scopes& scopes = m_scopes[line.first];
            ++scopes.count;
            scopes.milliseconds += static_cast<double>(line.timestamp - open.back()) / 1e6;
            open.pop_back();
        }
        if (open.empty())
            m_open.erase({line.context, line.first});
    }

    void Print() const {
        std::size_t events = 0;
        for (const std::size_t count : m_events)
            events += count;
        std::printf("%zu events in %.1f ms, %zu contexts opened, %zu threads\n\n", events,
                    m_end < m_begin ? 0.0 : static_cast<double>(m_end - m_begin) / 1e6,
                    m_events[Opened], m_threads.size());
        std::printf("%12s  %s\n", "events", "type");
        for (std::size_t type = 0; type < types; ++type)
            if (m_events[type] > 0)
                std::printf("%12zu  %zu %s\n", m_events[type], type, typeNames[type]);
        std::printf("\n%12s  %12s  %12s  %s\n", "scopes", "total ms", "mean us", "label");
        std::vector<std::pair<std::string, Scopes>> sorted(m_scopes.begin(), m_scopes.end());
        std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
            return a.second.milliseconds > b.second.milliseconds;
        });
        for (const auto& [label, scopes] : sorted)
            std::printf("%12zu  %12.3f  %12.3f  %s\n", scopes.count, scopes.milliseconds,
                        scopes.milliseconds * 1e3 / static_cast<double>(scopes.count),
                        label.c_str());
    }

private:
    std::uint64_t m_begin = UINT64_MAX;
    std::uint64_t m_end = 0;
    std::array<std::size_t, types> m_events{};
    std::set<std::string> m_threads;
    std::map<std::pair<std::uint64_t, std::string>, std::vector<std::uint64_t>> m_open;
    std::map<std::string, Scopes> m_scopes;
};

} // namespace

int main(int argc, char** argv) {
    std::ifstream file(argc == 2 ? argv[1] : "");
    std::string text;
    if (!std::getline(file, text)) { // the header
        std::fprintf(stderr, "usage: summary FILE, which the raw client has written\n");
        return 2;
    }
    Summary summary;
    try {
        while (std::getline(file, text))
            summary.Add(Parse(text));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "summary: %s\n", error.what());
        return 1;
    }
    summary.Print();
    return 0;
}
