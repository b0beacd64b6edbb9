#include "CsvLine.h"
#include "ManagerState.h"

#include <metrics/MetricsBitsUtils.h>
#include <metrics/MetricsRawClient.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

namespace Metrics {

namespace {

constexpr std::uint64_t defaultRawClientBits = MetricsBits::all & ~MetricsBits::rpipe;
constexpr std::uint64_t rawClientListenerBits = ~std::uint64_t{0xFFF};
constexpr unsigned int flushWait = 5000; // ms

} // namespace

/// The output file. Every line is one write(2): nothing waits in a buffer of ours that a forked
/// child could write a second time, or that would be lost when the process is killed.
class MetricsRawClient::Listener::Stream {
public:
    /// Creates or truncates the file, see open(2). Not inherited by programs that the host starts.
    explicit Stream(const std::string& fileName) {
        do
            m_file = open(fileName.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        while (m_file < 0 && errno == EINTR);
    }

    ~Stream() {
        if (m_file >= 0)
            close(m_file);
    }

    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    bool IsOpen() const { return m_file >= 0; }

    void WriteHeader() { Write(detail::csvHeader); }

    void WriteEvent(const MetricsEvent& event) {
        const detail::SectionGuard writing(m_writing);
        // Sequentially consistent: see Section::Enter. Close sees the mark, or is seen here.
        if (m_closed.load(std::memory_order_seq_cst) || m_failed)
            return;
        Write(m_line.Render(event));
        m_line.Shrink();
    }

    /// Afterwards nothing is written any more, also by a delivery thread that was given up. A write
    /// that does not return (into a pipe, say) is waited for a second long: it is the last one, and
    /// the destructor closes the file.
    void Close() {
        m_closed.store(true, std::memory_order_seq_cst);
        const std::uint32_t seen = m_writing.Read();
        if (detail::Section::IsInside(seen)) {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
            while (m_writing.Read() == seen) {
                if (std::chrono::steady_clock::now() >= deadline)
                    return;
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        }
        close(std::exchange(m_file, -1));
    }

private:
    void Write(std::string_view bytes) {
        while (!bytes.empty() && !m_failed && !m_closed.load(std::memory_order_relaxed)) {
            const ssize_t written = write(m_file, bytes.data(), bytes.size());
            if (written > 0)
                bytes.remove_prefix(static_cast<std::size_t>(written));
            else if (written == 0 || errno != EINTR)
                m_failed = true;
        }
    }

    int m_file = -1;
    std::atomic<bool> m_closed{false};

    // The writing thread's; Close reads the mark.
    detail::Section m_writing;
    bool m_failed = false;
    detail::CsvLine m_line;
};

MetricsRawClient::Listener::Listener() noexcept = default;
MetricsRawClient::Listener::~Listener() = default;

void MetricsRawClient::Listener::OnMetricsEvent(const MetricsEvent& event) {
    if (m_stream != nullptr)
        m_stream->WriteEvent(event);
}

MetricsRawClient::MetricsRawClient() noexcept = default;

MetricsRawClient::~MetricsRawClient() {
    Close();
}

void MetricsRawClient::SetBits(std::string const& mnemonics, bool absolute) {
    m_setBits = MetricsBitsUtils::GetMetricsBitsFromMnemonicList(mnemonics);
    m_setBitsAbsolute = absolute;
}

void MetricsRawClient::ClearBits(std::string const& mnemonics) {
    m_clearBits = MetricsBitsUtils::GetMetricsBitsFromMnemonicList(mnemonics);
}

void MetricsRawClient::SetOutputFileName(std::string const& fileName) {
    m_outputFileName = fileName;
}

bool MetricsRawClient::ProcessArgument(std::string const& argument) {
    const auto value = [&argument](std::string_view prefix) {
        return argument.substr(prefix.size());
    };
    if (argument.starts_with("-set="))
        SetBits(value("-set="), false);
    else if (argument.starts_with("-setabs="))
        SetBits(value("-setabs="), true);
    else if (argument.starts_with("-clear="))
        ClearBits(value("-clear="));
    else if (argument.starts_with("-raw="))
        SetOutputFileName(value("-raw="));
    else
        return false;
    return true;
}

bool MetricsRawClient::Open() {
    if (m_outputFileName.empty() || detail::InForkedChild())
        return false;
    Close();
    auto listener = korsys::MakeRefCnt<Listener>();
    listener->m_stream = std::make_unique<Listener::Stream>(m_outputFileName);
    if (!listener->m_stream->IsOpen())
        throw std::runtime_error("failed to open file");
    listener->m_stream->WriteHeader();
    AdjustFilterBits();
    m_listener = std::move(listener);
    try {
        // When the manager is not enabled nothing is registered, and the file keeps its header
        // only.
        MetricsManager::GetInstance()->AddConsumer(m_listener, rawClientListenerBits, false);
        m_context = std::make_unique<Context>(0, Context::Create(true));
    } catch (...) {
        ReleaseListener();
        throw;
    }
    m_isOpen = true;
    return true;
}

void MetricsRawClient::AdjustFilterBits() {
    MetricsManager& manager = *MetricsManager::GetInstance();
    if (m_setBits != 0) {
        m_setBits &= ~m_clearBits;
        if (m_setBitsAbsolute)
            manager.SetBitsAbsolute(m_setBits);
        else
            manager.SetBits(m_setBits);
    } else if (m_clearBits != 0) {
        manager.ClearBits(m_clearBits);
    } else {
        manager.SetBits(defaultRawClientBits);
    }
}

void MetricsRawClient::Close() noexcept {
    if (!m_isOpen)
        return;
    m_isOpen = false;
    m_context.reset();
    try {
        MetricsManager::GetInstance()->WaitUntilWritesFlushed(flushWait);
    } catch (...) {
        // No memory to wait with: what is queued is not in the file.
    }
    ReleaseListener();
}

void MetricsRawClient::ReleaseListener() noexcept {
    // In a forked child the file is the parent's, and its lock may be in nobody's hands.
    if (!detail::InForkedChild()) {
        try {
            MetricsManager::GetInstance()->RemoveConsumer(m_listener);
        } catch (...) {
            // No memory to reach the manager with: the listener stays registered, without a file.
        }
        m_listener->m_stream->Close();
    }
    m_listener = nullptr;
}

} // namespace Metrics
