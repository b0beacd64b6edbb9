#include "CsvLine.h"
#include "EventFile.h"
#include "OutputFile.h"

#include <metrics/MetricsRawClient.h>

#include <korsys/NoCancellation.h>

#include <chrono>
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
    void Stop(std::chrono::steady_clock::time_point) noexcept override { m_file.Stop(); }
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
    return ProcessArgument(argument, nullptr);
}

bool MetricsRawClient::ProcessArgument(std::string const& argument,
                                       MetricsBitsUtils::OwnMnemonics own) {
    return TakeArgument(argument, "-raw=", own);
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
    return Open();
} catch (...) {
    error = FailureOf(m_listener ? m_listener->m_stream.get() : nullptr);
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
