#include "OutputFile.h"

#include "Faults.h"
#include "NoWriteSignals.h"

#include <korsys/NoCancellation.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Metrics::detail {

namespace {

/// The standard output or error that the file is, open for writing; -1 when it is neither.
int StandardStream(const struct stat& file) noexcept {
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat other {};
        const int flags = fcntl(stream, F_GETFL);
        if (flags >= 0 && (flags & O_ACCMODE) != O_RDONLY && fstat(stream, &other) == 0 &&
            other.st_dev == file.st_dev && other.st_ino == file.st_ino)
            return stream;
    }
    return -1;
}

} // namespace

OutputFile::OutputFile(std::string path) : m_path(std::move(path)) {
    const korsys::NoCancellation guard;
    Open();
}

OutputFile::~OutputFile() {
    Close();
}

void OutputFile::Open() {
    do
        m_file = open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    while (m_file < 0 && errno == EINTR);
    struct stat file {};
    if (m_file < 0 || fstat(m_file, &file) != 0) {
        Fail(errno);
        return;
    }
    if (!S_ISREG(file.st_mode))
        return;
    const int stream = StandardStream(file);
    if (stream >= 0 ? dup3(stream, m_file, O_CLOEXEC) < 0 : ftruncate(m_file, 0) != 0) {
        Fail(errno);
        Close();
    }
}

void OutputFile::Fail(int error) noexcept {
    int none = 0;
    m_error.compare_exchange_strong(none, error, std::memory_order_relaxed);
}

void OutputFile::FailInWrite(int error) noexcept {
    Fail(error);
    s_faults.NoteFailedWrite(m_path, error);
}

void OutputFile::Write(std::string_view bytes) noexcept {
    while (!bytes.empty() && !HasFailed() && !m_stopped.load(std::memory_order_relaxed)) {
        // Not write(2) itself, which is a cancellation point: twice a locked instruction.
        const ssize_t written = syscall(SYS_write, m_file, bytes.data(), bytes.size());
        if (written > 0)
            bytes.remove_prefix(static_cast<std::size_t>(written));
        else if (written == 0 || errno != EINTR)
            FailInWrite(written == 0 ? EIO : errno);
    }
}

void OutputFile::WriteOnHostThread(std::string_view bytes) noexcept {
    const korsys::NoCancellation guard;
    NoWriteSignals signals;
    Write(bytes);
    signals.TakeAway(m_error.load(std::memory_order_relaxed));
}

void OutputFile::Close() noexcept {
    const int file = std::exchange(m_file, -1);
    // EINTR: the descriptor is gone all the same.
    if (file >= 0 && close(file) != 0 && errno != EINTR)
        Fail(errno);
}

MetricsFileError OutputFile::GetFirstError() const {
    const int error = m_error.load(std::memory_order_relaxed);
    return error == 0 ? MetricsFileError{} : MetricsFileError{error, m_path};
}

} // namespace Metrics::detail
