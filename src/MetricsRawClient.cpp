#include "CsvLine.h"
#include "Delivery.h"
#include "Lifecycle.h"
#include "OutputFile.h"
#include "WriterDoor.h"

#include <metrics/MetricsBitsUtils.h>
#include <metrics/MetricsRawClient.h>

#include <korsys/NoCancellation.h>

#include <new>
#include <stdexcept>
#include <utility>

namespace Metrics {

namespace {

constexpr std::uint64_t defaultRawClientBits = MetricsBits::all & ~MetricsBits::rpipe;
constexpr std::uint64_t rawClientListenerBits = ~std::uint64_t{0xFFF};
constexpr unsigned int closeWait = 5000; // ms

using std::chrono::steady_clock;

steady_clock::time_point DeadlineIn(unsigned int milliseconds) {
    return steady_clock::now() + std::chrono::milliseconds(milliseconds);
}

} // namespace

/// The file, and the thread that writes it meeting the one that closes it.
class MetricsRawClient::Listener::Stream {
public:
    explicit Stream(const std::string& fileName) : m_file(fileName) {}

    bool IsOpen() const { return m_file.IsOpen(); }
    bool HasFailed() const { return m_file.HasFailed(); }
    MetricsFileError GetFirstError() const { return m_file.GetFirstError(); }
    void WriteHeader() { m_file.WriteOnHostThread(detail::csvHeader); }

    void WriteEvent(const MetricsEvent& event) {
        if (!m_door.Enter())
            return;
        const Leaving leaving{*this};
        m_file.Write(m_line.Render(event));
        m_line.Shrink();
    }

    /// Afterwards nothing is written any more, also by a delivery thread that was given up: a write
    /// that does not return is the last one, and the file is closed behind it.
    /// @return false when one was in progress at the deadline.
    bool CloseUntil(std::chrono::steady_clock::time_point deadline) {
        m_file.Stop();
        return m_door.CloseUntil(deadline, [this] { m_file.Close(); });
    }

private:
    struct Leaving {
        Stream& stream;
        ~Leaving() {
            stream.m_door.Leave([this] { stream.m_file.Close(); });
        }
    };

    detail::WriterDoor m_door;
    detail::OutputFile m_file;
    detail::CsvLine m_line; // the writing thread's
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

bool MetricsRawClient::ProcessArgument(std::string const& argument,
                                       MetricsBitsUtils::OwnMnemonics own) {
    if (!ProcessArgument(argument))
        return false;
    if (!argument.starts_with("-raw="))
        (argument.starts_with("-clear=") ? m_clearBits : m_setBits) =
            MetricsBitsUtils::GetMetricsBitsFromMnemonicList(
                argument.substr(argument.find('=') + 1), own);
    return true;
}

bool MetricsRawClient::Open() {
    if (m_outputFileName.empty() || detail::InForkedChild())
        return false;
    Close();
    auto listener = korsys::MakeRefCnt<Listener>();
    listener->m_stream = std::make_unique<Listener::Stream>(m_outputFileName);
    m_listener = std::move(listener);
    Listener::Stream& stream = *m_listener->m_stream;
    if (!stream.IsOpen())
        throw std::runtime_error("failed to open file");
    stream.WriteHeader();
    AdjustFilterBits();
    try {
        // When the manager is not enabled nothing is registered, and the file keeps its header
        // only.
        MetricsManager::GetInstance()->AddConsumer(m_listener, rawClientListenerBits, false);
        m_context = std::make_unique<Context>(0, Context::Create(true));
    } catch (...) {
        EndListener(DeadlineIn(closeWait));
        throw;
    }
    m_isOpen = true;
    return true;
}

bool MetricsRawClient::Open(std::error_code& error) noexcept try {
    const korsys::NoCancellation guard;
    error.clear();
    try {
        return Open();
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        // The file could not be opened, or a consumer was shown the client's context and threw.
        const int reason = GetFirstError().error;
        error = reason != 0 ? std::error_code(reason, std::generic_category())
                            : std::make_error_code(std::errc::operation_canceled);
    }
    return false;
} catch (const std::bad_alloc&) {
    error = std::make_error_code(std::errc::not_enough_memory);
    return false;
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

bool MetricsRawClient::Close(unsigned int milliseconds) noexcept {
    if (!std::exchange(m_isOpen, false))
        return true;
    const korsys::NoCancellation guard;
    const steady_clock::time_point deadline = DeadlineIn(milliseconds);
    m_context.reset();
    bool isFlushed = false;
    try {
        isFlushed = !detail::InForkedChild() && detail::FlushUntil(deadline);
    } catch (const std::bad_alloc&) {
        // No memory to wait with: what is queued is not in the file.
    }
    return EndListener(deadline) && isFlushed;
}

void MetricsRawClient::Close() noexcept {
    Close(closeWait);
}

bool MetricsRawClient::EndListener(steady_clock::time_point deadline) noexcept {
    // In a forked child the file is the parent's, and its lock may be in nobody's hands.
    if (detail::InForkedChild())
        return false;
    bool isRemoved = false;
    try {
        isRemoved = detail::RemoveConsumerUntil(m_listener.Get(), deadline) !=
                    detail::Consumers::Removed::StillCalled;
    } catch (const std::bad_alloc&) {
        // No memory to reach the manager with: the listener stays registered, without a file.
    }
    return m_listener->m_stream->CloseUntil(deadline) && isRemoved &&
           !m_listener->m_stream->HasFailed();
}

MetricsFileError MetricsRawClient::GetFirstError() const {
    return m_listener ? m_listener->m_stream->GetFirstError() : MetricsFileError{};
}

} // namespace Metrics
