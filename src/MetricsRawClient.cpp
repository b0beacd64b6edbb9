#include "CsvLine.h"
#include "EventFile.h"
#include "OutputFile.h"

#include <metrics/MetricsRawClient.h>

#include <korsys/NoCancellation.h>

#include <new>
#include <stdexcept>
#include <utility>

namespace Metrics {

static_assert(sizeof(MetricsRawClient) == 80, "programs were built with objects of this size");

/// The file: a line for each event, in one write(2).
class MetricsRawClient::Listener::Stream final : public detail::EventFile {
public:
    explicit Stream(const std::string& fileName) : m_file(fileName) {}

    bool IsOpen() const { return m_file.IsOpen(); }
    void WriteHeader() { m_file.WriteOnHostThread(detail::csvHeader); }

    bool HasFailed() const noexcept override { return m_file.HasFailed(); }
    MetricsFileError GetFirstError() const override { return m_file.GetFirstError(); }

private:
    void Write(const MetricsEvent& event) override {
        m_file.Write(m_line.Render(event));
        m_line.Shrink();
    }
    void Complete() noexcept override {}
    void Stop() noexcept override { m_file.Stop(); }
    void Finish() noexcept override { m_file.Close(); }

    detail::OutputFile m_file;
    detail::CsvLine m_line;
};

MetricsRawClient::Listener::Listener() noexcept = default;
MetricsRawClient::Listener::~Listener() = default;

void MetricsRawClient::Listener::OnMetricsEvent(const MetricsEvent& event) {
    if (m_stream != nullptr)
        m_stream->Add(event);
}

MetricsRawClient::MetricsRawClient() noexcept = default;

MetricsRawClient::~MetricsRawClient() {
    Close();
}

void MetricsRawClient::SetBits(std::string const& mnemonics, bool absolute) {
    MetricsFileClient::SetBits(mnemonics, absolute);
}

void MetricsRawClient::ClearBits(std::string const& mnemonics) {
    MetricsFileClient::ClearBits(mnemonics);
}

void MetricsRawClient::SetOutputFileName(std::string const& fileName) {
    MetricsFileClient::SetOutputFileName(fileName);
}

bool MetricsRawClient::ProcessArgument(std::string const& argument) {
    return TakeArgument(argument, "-raw=");
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
    if (!MayOpen())
        return false;
    Close();
    auto listener = korsys::MakeRefCnt<Listener>();
    listener->m_stream = std::make_unique<Listener::Stream>(m_outputFileName);
    m_listener = std::move(listener);
    Listener::Stream& stream = *m_listener->m_stream;
    if (!stream.IsOpen())
        throw std::runtime_error("failed to open file");
    stream.WriteHeader();
    OpenFile(m_listener, stream);
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

bool MetricsRawClient::Close(unsigned int milliseconds) noexcept {
    return CloseFile(m_listener.Get(), m_listener ? m_listener->m_stream.get() : nullptr,
                     milliseconds);
}

void MetricsRawClient::Close() noexcept {
    Close(usualWait);
}

MetricsFileError MetricsRawClient::GetFirstError() const {
    return m_listener ? m_listener->m_stream->GetFirstError() : MetricsFileError{};
}

} // namespace Metrics
