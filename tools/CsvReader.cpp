#include "Reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

namespace Metrics::tools {

namespace {

constexpr std::string_view header = "timestamp,datetime,context_id,event_type,param1,param2";
constexpr std::size_t blockSize = 4 << 20;

/// @return nothing for what is not all digits, or above 64 bits.
template <class Number = std::uint64_t>
std::optional<Number> ToNumber(std::string_view text) {
    Number number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size())
        return std::nullopt;
    return number;
}

/// Seconds, a point, and up to nine digits.
std::optional<std::int64_t> ToWall(std::string_view text) {
    const std::size_t point = text.find('.');
    const std::optional<std::uint64_t> seconds = ToNumber(text.substr(0, point));
    if (!seconds)
        return std::nullopt;
    std::uint64_t nanoseconds = 0;
    if (point != std::string_view::npos) {
        const std::string_view digits = text.substr(point + 1);
        const std::optional<std::uint64_t> fraction = ToNumber(digits);
        if (!fraction || digits.size() > 9)
            return std::nullopt;
        nanoseconds = *fraction;
        for (std::size_t i = digits.size(); i < 9; ++i)
            nanoseconds *= 10;
    }
    return static_cast<std::int64_t>(*seconds * 1'000'000'000 + nanoseconds);
}

/// @return where the quoted field that the text begins with ends, behind its last quote; npos when
/// it is none. Inside, every quote stands twice.
std::size_t EndOfQuoted(std::string_view text) {
    if (text.empty() || text.front() != '"')
        return std::string_view::npos;
    for (std::size_t i = 1; i < text.size(); ++i)
        if (text[i] == '"' && (++i == text.size() || text[i] != '"'))
            return i;
    return std::string_view::npos;
}

class CsvReader final : public Reader {
public:
    CsvReader(const std::string& path, bool isFollowed)
        : m_path(path),
          m_file(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (m_file < 0)
            Fail();
        struct stat status {};
        if (fstat(m_file, &status) == 0 && S_ISREG(status.st_mode))
            m_size = static_cast<std::uint64_t>(status.st_size);
        TakeHeader();
        m_isFollowed = isFollowed;
    }

    ~CsvReader() override {
        if (m_file != STDIN_FILENO)
            close(m_file);
    }

    bool Read(EventBatch& batch) override {
        batch.events.clear();
        batch.unquoted.clear();
        std::size_t end = std::string::npos;
        while ((end = m_rest.rfind('\n')) == std::string::npos)
            if (!Fill())
                return false;
        batch.text.assign(m_rest, 0, end + 1);
        m_rest.erase(0, end + 1);
        std::string_view text = batch.text;
        while (!text.empty()) {
            const std::size_t length = text.find('\n');
            ++m_line;
            if (!Parse(text.substr(0, length), batch))
                m_damage.unreadableLines.push_back(m_line);
            text.remove_prefix(length + 1);
        }
        return true;
    }

    Damage GetDamage() const override {
        Damage damage = m_damage;
        damage.truncated = !m_rest.empty();
        return damage;
    }

    double Progress() const override {
        return m_size == 0 ? -1 : static_cast<double>(m_read) / static_cast<double>(m_size);
    }

private:
    /// A file that does not begin with the header may still be one of ours: damaged, or with other
    /// output in front. It is when the header or an event is near.
    void TakeHeader() {
        EventBatch batch;
        std::size_t begin = 0;
        for (;;) {
            const std::size_t end = m_rest.find('\n', begin);
            if (end == std::string::npos) {
                if (m_rest.size() < blockSize && Fill())
                    continue;
                break;
            }
            const std::string_view line = std::string_view(m_rest).substr(begin, end - begin);
            if (begin == 0 && line == header) {
                m_line = 1;
                m_rest.erase(0, end + 1);
                return;
            }
            if (line == header || Parse(line, batch))
                return; // Read() tells of what stands in front
            begin = end + 1;
        }
        if (begin != 0 || m_rest.empty() || !header.starts_with(m_rest))
            throw ReadError(m_path + ":1: not a file of events: their header is not there");
        m_line = 1; // it is being written
    }

    [[noreturn]] void Fail() const {
        throw ReadError(m_path + ": " + std::generic_category().message(errno));
    }

    bool Fill() {
        pollfd file{m_file, POLLIN, 0};
        if (m_isFollowed && poll(&file, 1, 0) == 0)
            return false;
        const std::size_t old = m_rest.size();
        m_rest.resize(old + blockSize);
        ssize_t got = 0;
        do
            got = read(m_file, m_rest.data() + old, blockSize);
        while (got < 0 && errno == EINTR);
        m_rest.resize(old + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0)
            Fail();
        m_read += static_cast<std::uint64_t>(got);
        return got > 0;
    }

    // [snippet: parse]
    /// Takes a line apart, and appends its event.
    /// @return false when it is none.
    static bool Parse(std::string_view line, EventBatch& batch) {
        std::array<std::string_view, 4> fields;
        for (std::string_view& field : fields) {
            const std::size_t comma = line.find(',');
            if (comma == std::string_view::npos)
                return false;
            field = line.substr(0, comma);
            line.remove_prefix(comma + 1);
        }
        const auto stamp = ToNumber(fields[0]);
        const auto wall = ToWall(fields[1]);
        const auto context = ToNumber(fields[2]);
        const auto type = ToNumber<std::int64_t>(fields[3]);
        if (!stamp || !wall || !context || !type)
            return false;
        Event event{.stamp = *stamp, .wall = *wall, .context = *context, .type = EventType{*type}};

        // Only the values may hold commas that part nothing. Where the second is a number, the last
        // one parts them; elsewhere the first, unless it stands in quotes: names rarely have any.
        const bool endsInNumber = *type >= 2 && *type <= 6;
        std::size_t comma = endsInNumber ? line.rfind(',') : line.find(',');
        if (comma == std::string_view::npos)
            return false;
        if (!endsInNumber) {
            const std::size_t quoted = EndOfQuoted(line);
            if (quoted < line.size() && line[quoted] == ',')
                comma = quoted;
        }
        const std::string_view first = line.substr(0, comma);
        const std::string_view second = line.substr(comma + 1);
        if (endsInNumber) {
            const auto number = ToNumber(second);
            if (!number || (*type < 5 && !ToNumber(first)))
                return false;
            event.id = *number;
        }
        event.first = Unquote(first, batch);
        event.second = Unquote(second, batch);
        batch.events.push_back(event);
        return true;
    }

    static std::string_view Unquote(std::string_view field, EventBatch& batch) {
        if (EndOfQuoted(field) != field.size() || field.empty())
            return field;
        std::string text;
        for (std::size_t i = 1; i + 1 < field.size(); i += field[i] == '"' ? 2 : 1)
            text += field[i];
        return batch.unquoted.emplace_back(std::move(text));
    }

    // [end]

    std::string m_path;
    int m_file;
    bool m_isFollowed = false;
    std::uint64_t m_size = 0;
    std::uint64_t m_read = 0;
    std::uint64_t m_line = 0; ///< the last one that was taken
    std::string m_rest;       ///< what was read behind the last line that was taken
    Damage m_damage;
};

} // namespace

std::unique_ptr<Reader> OpenCsv(const std::string& path, bool isFollowed) {
    return std::make_unique<CsvReader>(path, isFollowed);
}

} // namespace Metrics::tools
