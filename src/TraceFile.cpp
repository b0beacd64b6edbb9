#include "TraceFile.h"

#include "NoWriteSignals.h"

#include <metrics/MetricsEvent.h>
#include <metrics/MetricsTimer.h>

#include <korsys/NoCancellation.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

namespace Metrics::detail {

namespace {

constexpr std::size_t usualPacket = 256 << 10;
constexpr std::uint64_t usualPart = 64 << 20;
constexpr std::uint64_t leastKept = 64 << 10;
constexpr std::uint64_t keptParts = 8;
constexpr std::int64_t oldest = 100'000'000; // ns; a packet in memory
constexpr std::uint64_t copiedAtOnce = 1 << 20;
constexpr std::uint64_t looksAtClock = 16; // events; the clock costs about as much as one

constexpr const char* description = "metadata";
constexpr const char* unfinished = ".unfinished"; // readers skip what begins with a point
constexpr std::string_view partPrefix = "events-";

// All of an event but its values: the longest.
constexpr std::size_t fixedSize = 1 + 4 + 4 + 2 + 4 + 4 + 3 * 8;

template <class Number>
char* Put(char* out, Number number) noexcept {
    std::memcpy(out, &number, sizeof number);
    return out + sizeof number;
}

char* Put(char* out, std::string_view bytes) noexcept {
    if (!bytes.empty()) // whose data may be null
        std::memcpy(out, bytes.data(), bytes.size());
    return out + bytes.size();
}

std::string_view TextOf(const MetricsValue& value) noexcept {
    const bool isText = value.kind == MetricsValue::Kind::String && value.text != nullptr;
    return isText ? std::string_view(*value.text) : std::string_view();
}

TraceKind KindOf(const MetricsValue& value) noexcept {
    switch (value.kind) {
    case MetricsValue::Kind::Integer:
        return TraceKind::Integer;
    case MetricsValue::Kind::Boolean:
        return TraceKind::Boolean;
    case MetricsValue::Kind::Double:
        return TraceKind::Double;
    case MetricsValue::Kind::String:
        // The format's texts end at a NUL.
        return TextOf(value).find('\0') == std::string_view::npos ? TraceKind::Text
                                                                  : TraceKind::Other;
    }
    return TraceKind::Other;
}

/// What the value takes at most.
std::size_t RoomFor(const MetricsValue& value) noexcept {
    return 8 + (value.text == nullptr ? 0 : value.text->size());
}

char* PutValue(char* out, const MetricsValue& value, TraceKind kind) noexcept {
    switch (kind) {
    case TraceKind::Integer:
        return Put(out, value.integer);
    case TraceKind::Boolean: {
        unsigned char byte = 0; // any but 0 is true, though a bool holds two of them only
        std::memcpy(&byte, &value.boolean, sizeof byte);
        return Put(out, byte);
    }
    case TraceKind::Double:
        return Put(out, value.number);
    case TraceKind::Text:
        return Put(Put(out, TextOf(value)), '\0');
    case TraceKind::Other:
        break;
    }
    const std::string_view text = TextOf(value);
    out = Put(out, static_cast<std::int32_t>(value.kind));
    return Put(Put(out, static_cast<std::uint32_t>(text.size())), text);
}

/// 0 for a type without a name.
unsigned TypeOf(const MetricsEvent& event) noexcept {
    const auto number = static_cast<unsigned>(event.eventType) - 1;
    return number < traceTypes ? number : 0;
}

std::int64_t Nanoseconds(clockid_t clock) noexcept {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

/// What the wall clock is ahead of the up-time: of several looks the one with the least between.
std::int64_t MeasureOffset() noexcept {
    std::int64_t offset = 0;
    std::uint64_t shortest = std::numeric_limits<std::uint64_t>::max();
    for (int i = 0; i < 10; ++i) {
        const std::uint64_t before = AppUpTime();
        const std::int64_t wall = Nanoseconds(CLOCK_REALTIME);
        const std::uint64_t took = AppUpTime() - before;
        if (took < shortest) {
            shortest = took;
            offset = wall - static_cast<std::int64_t>(before + took / 2);
        }
    }
    return std::max<std::int64_t>(offset, 0);
}

} // namespace

TraceFile::TraceFile(std::string folder, std::uint64_t keptSize)
    : m_folder(std::move(folder)),
      m_keptSize(keptSize == 0 ? 0 : std::max(keptSize, leastKept)),
      m_partSize(m_keptSize == 0 ? usualPart
                                 : std::min(usualPart, m_keptSize / keptParts / 4096 * 4096)) {
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0) // of a file: then there are more of them
        m_partSize = std::min<std::uint64_t>(m_partSize, limit.rlim_cur / 4096 * 4096);
    const korsys::NoCancellation guard;
    NoWriteSignals signals;
    const int error = Prepare();
    m_isOpen = error == 0;
    if (m_isOpen)
        return;
    Fail(error);
    signals.TakeAway(error);
}

TraceFile::~TraceFile() {
    if (m_file >= 0)
        close(m_file);
    if (m_directory >= 0)
        close(m_directory);
}

bool TraceFile::HasFailed() const noexcept {
    return m_error.load(std::memory_order_relaxed) != 0;
}

MetricsFileError TraceFile::GetFirstError() const {
    const int error = m_error.load(std::memory_order_relaxed);
    return error == 0 ? MetricsFileError{} : MetricsFileError{error, m_folder};
}

bool TraceFile::Fail(int error) noexcept {
    int none = 0;
    m_error.compare_exchange_strong(none, error, std::memory_order_relaxed);
    return false;
}

// The folder ------------------------------------------------------------------------------------

int TraceFile::Prepare() try {
    if (mkdir(m_folder.c_str(), 0777) != 0 && errno != EEXIST)
        return errno;
    m_directory = open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // Nobody else may record into it; the system forgets the lock with the process.
    if (m_directory < 0 || flock(m_directory, LOCK_EX | LOCK_NB) != 0)
        return errno;
    if (const int error = RemoveOldTrace(); error != 0)
        return error;
    if (getrandom(m_uuid.data(), m_uuid.size(), GRND_NONBLOCK) !=
        static_cast<ssize_t>(m_uuid.size()))
        return errno;
    return WriteDescription();
} catch (const std::bad_alloc&) {
    return ENOMEM; // and the destructor lets go of the folder and its lock
}

bool TraceFile::IsOurs() const {
    const int file = openat(m_directory, description, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    std::string text(65536, '\0');
    const ssize_t size = read(file, text.data(), text.size());
    close(file);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text.starts_with("/* CTF 1.8 */") &&
           text.find("metrics_version = ") != std::string::npos;
}

/// Takes nothing away but what was written here.
int TraceFile::RemoveOldTrace() {
    const int folder = openat(m_directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return errno;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(folder), closedir);
    if (entries == nullptr) {
        const int error = errno;
        close(folder);
        return error;
    }
    std::vector<std::string> parts;
    bool isOther = false;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads from these entries
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string_view name = entry->d_name;
        if (name.starts_with(partPrefix))
            parts.emplace_back(name);
        else
            isOther = isOther || (name.front() != '.' && name != description);
    }
    const bool isEmpty = parts.empty() && faccessat(m_directory, description, F_OK, 0) != 0;
    if (isOther || (!isEmpty && !IsOurs()))
        return EEXIST;
    for (const std::string& part : parts)
        if (unlinkat(m_directory, part.c_str(), 0) != 0)
            return errno;
    return 0;
}

int TraceFile::WriteDescription() {
    const std::string text = DescribeTrace(m_uuid, MeasureOffset());
    const int file =
        openat(m_directory, unfinished, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (file < 0)
        return errno;
    const bool isWritten = WriteAt(file, 0, text.data(), text.size());
    close(file);
    if (!isWritten) {
        unlinkat(m_directory, unfinished, 0);
        return m_error.load(std::memory_order_relaxed);
    }
    return renameat(m_directory, unfinished, m_directory, description) == 0 ? 0 : errno;
}

// Packets ---------------------------------------------------------------------------------------

void TraceFile::Write(const MetricsEvent& event) {
    // The clock of a trace never goes back, but events may be queued in another order than they
    // were stamped in: what they lag behind stands beside.
    const std::uint64_t clock = std::max(m_clock, event.timestamp);
    const std::uint64_t lag = clock - event.timestamp;
    const auto wall = static_cast<std::int64_t>(event.unixSeconds * 1'000'000 +
                                                event.unixMicroseconds - event.timestamp / 1000);
    const std::size_t room = fixedSize + RoomFor(event.param1) + RoomFor(event.param2);
    if (!Fits(clock, lag, wall, room)) [[unlikely]]
        BeginPacket(clock, lag, wall, room);

    const unsigned type = TypeOf(event);
    const TraceKind first = KindOf(event.param1);
    const TraceKind second = KindOf(event.param2);
    char* out = Put(m_out, TraceEventId(type, first, second));
    out = Put(out, static_cast<std::uint32_t>(clock));
    out = Put(out, static_cast<std::uint32_t>(lag - m_header.lagBase));
    out = Put(out, static_cast<std::int16_t>(wall - m_header.wallBase));
    if (type == 0)
        out = Put(out, static_cast<std::int32_t>(event.eventType));
    out = Put(out, GetEventThreadId());
    out = Put(out, event.contextId);
    out = Put(out, event.sourceId);
    out = Put(out, event.bits);
    out = PutValue(out, event.param1, first);
    m_out = PutValue(out, event.param2, second);
    m_clock = clock;
    if (++m_events % looksAtClock == 0 && Nanoseconds(CLOCK_MONOTONIC_COARSE) - m_begun > oldest)
        [[unlikely]]
        FinishPacket();
}

bool TraceFile::Fits(std::uint64_t clock, std::uint64_t lag, std::int64_t wall,
                     std::size_t room) const noexcept {
    constexpr std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
    const std::int64_t drift = wall - m_header.wallBase;
    return m_events != 0 &&
           room + 8 <= m_capacity - static_cast<std::size_t>(m_out - m_packet.get()) &&
           clock - m_clock <= most && lag - m_header.lagBase <= most &&
           drift == static_cast<std::int16_t>(drift);
}

void TraceFile::BeginPacket(std::uint64_t clock, std::uint64_t lag, std::int64_t wall,
                            std::size_t room) {
    FinishPacket();
    const std::size_t usual = std::min<std::size_t>(usualPacket, m_partSize);
    const std::size_t needed = sizeof(TracePacketHeader) + room + 8; // with what aligns its end
    if (m_capacity < needed || m_capacity > usual) {
        const std::size_t capacity = std::max(usual, needed);
        m_packet.reset(); // not both at once
        m_capacity = 0;
        try {
            m_packet = std::make_unique_for_overwrite<char[]>(capacity);
        } catch (const std::bad_alloc&) {
            Fail(ENOMEM);
            m_discarded.fetch_add(1, std::memory_order_relaxed);
            throw;
        }
        m_capacity = capacity;
    }
    m_out = m_packet.get() + sizeof(TracePacketHeader);
    m_header.begin = clock;
    m_header.lagBase = lag > std::numeric_limits<std::uint32_t>::max() ? lag : 0;
    m_header.wallBase = wall;
    m_begun = Nanoseconds(CLOCK_MONOTONIC_COARSE);
}

void TraceFile::FinishPacket() noexcept {
    if (m_events == 0)
        return;
    const auto content = static_cast<std::size_t>(m_out - m_packet.get());
    const std::size_t size = (content + 7) / 8 * 8; // see WritePacket
    std::memset(m_out, 0, size - content);
    m_header.magic = traceMagic;
    m_header.uuid = m_uuid;
    m_header.contentBits = content * 8;
    m_header.end = m_clock;
    m_header.discarded = Discarded();
    bool isWritten = false;
    try {
        isWritten = WritePacket(size);
    } catch (const std::bad_alloc&) {
        Fail(ENOMEM);
    }
    if (isWritten)
        ++m_header.number;
    else
        m_discarded.fetch_add(m_events, std::memory_order_relaxed);
    m_events = 0;
}

bool TraceFile::WritePacket(std::size_t size) {
    if (m_file < 0 || size > m_size - m_end)
        return BeginPart(size);
    // Steps 2 and 3 of the class's comment.
    m_header.packetBits = (m_size - m_end) * 8;
    std::memcpy(m_packet.get(), &m_header, sizeof m_header);
    const std::uint64_t bits = (m_end - m_lastPacket) * 8;
    if (!WriteAt(m_file, m_end, m_packet.get(), size) ||
        !WriteAt(m_file, m_lastPacket + offsetof(TracePacketHeader, packetBits), &bits,
                 sizeof bits))
        return false;
    m_lastPacket = std::exchange(m_end, m_end + size);
    return true;
}

bool TraceFile::BeginPart(std::size_t size) {
    const std::uint64_t partSize = std::max<std::uint64_t>(m_partSize, size);
    if (!MakeRoom(partSize))
        return false;
    std::string number = std::to_string(m_partNumber);
    number.insert(0, number.size() < 6 ? 6 - number.size() : 0, '0');
    m_parts.push_back({std::string(partPrefix) + number, partSize});
    const int file = openat(m_directory, unfinished, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    m_header.packetBits = partSize * 8;
    std::memcpy(m_packet.get(), &m_header, sizeof m_header);
    const bool isMade = file >= 0 && ftruncate(file, static_cast<off_t>(partSize)) == 0;
    const bool isWritten = isMade ? WriteAt(file, 0, m_packet.get(), size) : Fail(errno);
    if (!isWritten ||
        renameat(m_directory, unfinished, m_directory, m_parts.back().name.c_str()) != 0) {
        Fail(errno);
        m_parts.pop_back();
        if (file >= 0)
            close(file);
        unlinkat(m_directory, unfinished, 0);
        return false;
    }
    if (m_file >= 0)
        close(m_file);
    m_file = file;
    m_size = partSize;
    m_lastPacket = 0;
    m_end = size;
    m_total += partSize;
    ++m_partNumber;
    return true;
}

/// Removes the oldest files that must go for a new one.
bool TraceFile::MakeRoom(std::uint64_t size) {
    if (m_keptSize == 0)
        return true;
    if (size > m_keptSize)
        return Fail(EFBIG);
    while (m_total + size > m_keptSize) {
        unlinkat(m_directory, m_parts.front().name.c_str(), 0);
        m_total -= m_parts.front().size;
        m_parts.pop_front();
    }
    if (m_parts.empty() && m_file >= 0) // the newest one has gone as well
        close(std::exchange(m_file, -1));
    return true;
}

bool TraceFile::WriteAt(int file, std::uint64_t offset, const void* bytes,
                        std::size_t size) noexcept {
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = pwrite(file, next, size, static_cast<off_t>(offset));
        if (written <= 0) {
            if (written < 0 && errno == EINTR)
                continue;
            return Fail(written == 0 ? ENOSPC : errno);
        }
        next += written;
        offset += static_cast<std::uint64_t>(written);
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// The end ---------------------------------------------------------------------------------------

void TraceFile::Finish() noexcept {
    const korsys::NoCancellation guard;
    NoWriteSignals signals; // it may be the host's thread
    FinishPacket();
    if (m_file >= 0) {
        const std::uint64_t discarded = Discarded();
        if (discarded != 0) // in place, which takes no room on a disk that is full
            WriteAt(m_file, m_lastPacket + offsetof(TracePacketHeader, discarded), &discarded,
                    sizeof discarded);
        signals.TakeAway(Trim());
        if (close(std::exchange(m_file, -1)) != 0 && errno != EINTR)
            Fail(errno);
    }
    signals.TakeAway(m_error.load(std::memory_order_relaxed));
    flock(m_directory, LOCK_UN); // a forked child may hold the descriptor
    close(std::exchange(m_directory, -1));
    m_packet.reset();
}

/// Puts a copy without the padding in the place of the newest file. Where that does not succeed, or
/// takes longer than until the deadline, the file is as good as it was. @return the reason, or 0.
int TraceFile::Trim() noexcept {
    const std::uint64_t bits = (m_end - m_lastPacket) * 8;
    const int copy =
        openat(m_directory, unfinished, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (copy < 0)
        return errno;
    const auto reason = [](ssize_t written) { return written < 0 ? errno : EIO; };
    int error = 0;
    std::uint64_t rest = m_end;
    for (off_t offset = 0; rest > 0 && error == 0;) {
        const ssize_t sent = sendfile(copy, m_file, &offset, std::min(rest, copiedAtOnce));
        if (sent > 0)
            rest -= static_cast<std::uint64_t>(sent);
        else
            error = reason(sent);
        if (rest > 0 &&
            std::chrono::steady_clock::now() > m_deadline.load(std::memory_order_relaxed))
            error = ETIMEDOUT;
    }
    if (error == 0) {
        const ssize_t written =
            pwrite(copy, &bits, sizeof bits,
                   static_cast<off_t>(m_lastPacket + offsetof(TracePacketHeader, packetBits)));
        if (written != static_cast<ssize_t>(sizeof bits))
            error = reason(written);
    }
    if (close(copy) != 0 && error == 0)
        error = errno;
    if (error == 0 &&
        renameat(m_directory, unfinished, m_directory, m_parts.back().name.c_str()) != 0)
        error = errno;
    if (error != 0)
        unlinkat(m_directory, unfinished, 0);
    return error;
}

} // namespace Metrics::detail
