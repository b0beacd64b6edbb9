#include "BatchListener.h"
#include "TraceFile.h"

#include <metrics/MetricsTraceClient.h>

#include <korsys/NoCancellation.h>

#include <charconv>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace Metrics {

class MetricsTraceClient::Listener final : public detail::BatchListener {
public:
    Listener(const std::string& folder, std::uint64_t keptSize) : m_file(folder, keptSize) {}

    void OnMetricsEvent(const MetricsEvent& event) override { m_file.Gather(event); }
    void OnBatchEnd() noexcept override { m_file.EndBatch(); }
    void OnPause() noexcept override { m_file.Pause(); }

    detail::TraceFile m_file;
};

namespace {

/// Digits, and maybe a K, M or G.
std::optional<std::uint64_t> ParseSize(std::string_view text) {
    std::uint64_t size = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size);
    if (error != std::errc())
        return {};
    const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    const int shift = unit.empty()  ? 0
                      : unit == "K" ? 10
                      : unit == "M" ? 20
                      : unit == "G" ? 30
                                    : -1;
    if (shift < 0 || size > std::numeric_limits<std::uint64_t>::max() >> shift)
        return {};
    return size << shift;
}

} // namespace

MetricsTraceClient::MetricsTraceClient() noexcept = default;

MetricsTraceClient::~MetricsTraceClient() {
    Close();
}

void MetricsTraceClient::SetKeptSize(std::uint64_t bytes) noexcept {
    m_keptSize = bytes;
}

bool MetricsTraceClient::ProcessArgument(std::string const& argument) {
    return ProcessArgument(argument, nullptr);
}

bool MetricsTraceClient::ProcessArgument(std::string const& argument,
                                         MetricsBitsUtils::OwnMnemonics own) {
    constexpr std::string_view keep = "-trace-keep=";
    if (!argument.starts_with(keep))
        return TakeArgument(argument, "-trace=", own);
    const std::optional<std::uint64_t> size =
        ParseSize(std::string_view(argument).substr(keep.size()));
    if (size)
        SetKeptSize(*size);
    return size.has_value();
}

bool MetricsTraceClient::Open() {
    if (!MayOpen())
        return false;
    Close();
    m_listener = nullptr; // with its lock on the folder
    m_listener = korsys::MakeRefCnt<Listener>(m_outputFileName, m_keptSize);
    if (!m_listener->m_file.IsOpen())
        throw std::runtime_error("failed to open file");
    OpenFile(m_listener, m_listener->m_file);
    return true;
}

bool MetricsTraceClient::Open(std::error_code& error) noexcept try {
    const korsys::NoCancellation guard;
    error.clear();
    return Open();
} catch (...) {
    error = FailureOf(m_listener ? &m_listener->m_file : nullptr);
    return false;
}

bool MetricsTraceClient::Close(unsigned int milliseconds) noexcept {
    return CloseFile(m_listener.Get(), m_listener ? &m_listener->m_file : nullptr, milliseconds);
}

void MetricsTraceClient::Close() noexcept {
    Close(usualWait);
}

MetricsFileError MetricsTraceClient::GetFirstError() const {
    return m_listener ? m_listener->m_file.GetFirstError() : MetricsFileError{};
}

std::uint64_t MetricsTraceClient::GetDiscardedEvents() const noexcept {
    return m_listener ? m_listener->m_file.Discarded() : 0;
}

} // namespace Metrics
