#include "Delivery.h"
#include "EventFile.h"
#include "Lifecycle.h"

#include <metrics/MetricsBitsUtils.h>
#include <metrics/MetricsFileClient.h>

#include <korsys/NoCancellation.h>

#include <chrono>
#include <new>
#include <string_view>
#include <utility>

namespace Metrics {

namespace {

constexpr std::uint64_t defaultRawClientBits = MetricsBits::all & ~MetricsBits::rpipe;
constexpr std::uint64_t rawClientListenerBits = ~std::uint64_t{0xFFF};

using std::chrono::steady_clock;

steady_clock::time_point DeadlineIn(unsigned int milliseconds) {
    return steady_clock::now() + std::chrono::milliseconds(milliseconds);
}

/// Ends the registration and the file. @return whether both came to their end, and no write failed.
bool EndFile(const IMetricsListener* listener, detail::EventFile& file,
             steady_clock::time_point deadline) noexcept {
    // In a forked child the file is the parent's, and its lock may be in nobody's hands.
    if (detail::InForkedChild())
        return false;
    bool isRemoved = false;
    try {
        isRemoved = detail::RemoveConsumerUntil(listener, deadline) !=
                    detail::Consumers::Removed::StillCalled;
    } catch (const std::bad_alloc&) {
        // No memory to reach the manager with: the listener stays registered, without a file.
    }
    return file.CloseUntil(deadline) && isRemoved && !file.HasFailed();
}

} // namespace

MetricsFileClient::MetricsFileClient() noexcept = default;
MetricsFileClient::~MetricsFileClient() = default;

void MetricsFileClient::SetBits(std::string const& mnemonics, bool absolute) {
    m_setBits = MetricsBitsUtils::GetMetricsBitsFromMnemonicList(mnemonics);
    m_setBitsAbsolute = absolute;
}

void MetricsFileClient::ClearBits(std::string const& mnemonics) {
    m_clearBits = MetricsBitsUtils::GetMetricsBitsFromMnemonicList(mnemonics);
}

void MetricsFileClient::SetOutputFileName(std::string const& fileName) {
    m_outputFileName = fileName;
}

bool MetricsFileClient::TakeArgument(std::string const& argument, const char* pathOption) {
    const auto value = [&argument](std::string_view prefix) {
        return argument.substr(prefix.size());
    };
    if (argument.starts_with("-set="))
        SetBits(value("-set="), false);
    else if (argument.starts_with("-setabs="))
        SetBits(value("-setabs="), true);
    else if (argument.starts_with("-clear="))
        ClearBits(value("-clear="));
    else if (argument.starts_with(pathOption))
        SetOutputFileName(value(pathOption));
    else
        return false;
    return true;
}

bool MetricsFileClient::MayOpen() const noexcept {
    return !m_outputFileName.empty() && !detail::InForkedChild();
}

void MetricsFileClient::OpenFile(const MetricsListenerPtr& listener, detail::EventFile& file) {
    AdjustFilterBits();
    try {
        // When the manager is not enabled nothing is registered, and the file gets no event.
        MetricsManager::GetInstance()->AddConsumer(listener, rawClientListenerBits, false);
        m_context = std::make_unique<Context>(0, Context::Create(true));
    } catch (...) {
        EndFile(listener.Get(), file, DeadlineIn(usualWait));
        throw;
    }
    m_isOpen = true;
}

void MetricsFileClient::AdjustFilterBits() {
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

bool MetricsFileClient::CloseFile(const IMetricsListener* listener, detail::EventFile* file,
                                  unsigned int milliseconds) noexcept {
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
    return EndFile(listener, *file, deadline) && isFlushed;
}

} // namespace Metrics
