#ifndef METRICS_FILE_CLIENT_H
#define METRICS_FILE_CLIENT_H

#include <metrics/MetricsBitsUtils.h>
#include <metrics/MetricsContext.h>
#include <metrics/MetricsEvent.h>
#include <metrics/MetricsExport.h>
#include <metrics/MetricsFileError.h>

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>

namespace Metrics {

namespace detail {
class EventFile;
}

/// What the built-in clients, MetricsRawClient and MetricsTraceClient, have in common: which
/// categories they record, where, and from when to when. Not for use by itself.
///
/// Thread-safety: one thread at a time for each object; Open and Close run on the same thread,
/// since the client's root context is attached to it.
class METRICS_EXPORT MetricsFileClient {
public:
    MetricsFileClient(const MetricsFileClient&) = delete;
    MetricsFileClient& operator=(const MetricsFileClient&) = delete;

    /// Sets the categories that Open adds to the manager's mask or, when `absolute`, replaces it
    /// with. Unknown mnemonics are dropped; see MetricsBitsUtils::ValidateMnemonicList.
    /// Cost: reads the list, as ClearBits does; takes no lock and allocates nothing.
    void SetBits(std::string const& mnemonics, bool absolute);

    /// Sets the categories that Open takes out. Unknown mnemonics are dropped.
    void ClearBits(std::string const& mnemonics);

    /// Sets the path of the file, or of the folder.
    /// Cost: copies the path; takes no lock.
    /// @throws std::bad_alloc
    void SetOutputFileName(std::string const& fileName);

protected:
    MetricsFileClient() noexcept;
    ~MetricsFileClient();

    /// Takes an argument for the categories, or the path behind `pathOption`.
    bool TakeArgument(std::string const& argument, const char* pathOption,
                      MetricsBitsUtils::OwnMnemonics own);
    /// Whether there is a path, and the process is no forked child.
    bool MayOpen() const noexcept;
    /// Adjusts the mask, registers the listener and opens the root context.
    /// @throws std::bad_alloc, what a synchronous consumer throws; the file is closed then.
    void OpenFile(const MetricsListenerPtr& listener, detail::EventFile& file);
    /// What Open tells of the exception that is being handled; `file` is what it was to open.
    static std::error_code FailureOf(const detail::EventFile* file) noexcept;
    /// All that Close does. @return what it returns.
    bool CloseFile(const IMetricsListener* listener, detail::EventFile* file,
                   unsigned int milliseconds) noexcept;

    static constexpr unsigned int usualWait = 5000; ///< How long Close waits, in milliseconds.

    bool m_isOpen = false;              ///< From a successful Open until Close.
    std::unique_ptr<Context> m_context; ///< The client's root context, while it is open.
    std::string m_outputFileName;       ///< The path.
    std::uint64_t m_setBits = 0;        ///< Categories that Open switches on.
    std::uint64_t m_clearBits = 0;      ///< Categories that Open switches off.
    bool m_setBitsAbsolute = false;     ///< Whether m_setBits replaces the mask.

private:
    void AdjustFilterBits();
};

} // namespace Metrics

#endif // METRICS_FILE_CLIENT_H
