#ifndef METRICS_RAW_CLIENT_H
#define METRICS_RAW_CLIENT_H

#include <metrics/MetricsContext.h>
#include <metrics/MetricsEvent.h>
#include <metrics/MetricsExport.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Metrics {

/// The built-in consumer: writes every delivered event as one line of a CSV file. The format is
/// docs/csv-format.md. Feed it the application's arguments and open it:
///
///     MetricsRawClient client;
///     for (const std::string& argument : arguments)
///         client.ProcessArgument(argument); // -set=act,net -raw=out.csv
///     MetricsManager::GetInstance()->Enable();
///     client.Open();
///
/// Thread-safety: one thread at a time for each object; Open and Close run on the same thread,
/// since the client's root context is attached to it.
class METRICS_EXPORT MetricsRawClient {
public:
    class Listener;

    /// A closed client without settings. Touches neither the manager nor the file system.
    MetricsRawClient() noexcept;

    /// Closes the client.
    /// Cost: that of Close.
    ~MetricsRawClient();

    MetricsRawClient(const MetricsRawClient&) = delete;
    MetricsRawClient& operator=(const MetricsRawClient&) = delete;

    /// Sets the categories that Open adds to the manager's mask or, when `absolute`, replaces it
    /// with. Unknown mnemonics are dropped; see MetricsBitsUtils::ValidateMnemonicList.
    /// Cost: reads the list, as ClearBits does; takes no lock and allocates nothing.
    void SetBits(std::string const& mnemonics, bool absolute);

    /// Sets the categories that Open takes out. Unknown mnemonics are dropped.
    void ClearBits(std::string const& mnemonics);

    /// Sets the path of the file.
    /// Cost: copies the path; takes no lock.
    /// @throws std::bad_alloc
    void SetOutputFileName(std::string const& fileName);

    /// Takes one argument: "-set=", "-setabs=" or "-clear=" with mnemonics, or "-raw=" with the
    /// path. A later argument of the same kind replaces an earlier one. Settings take effect at the
    /// next Open. @return false, changing nothing, for any other argument.
    /// Cost: copies the argument's value; takes no lock.
    /// @throws std::bad_alloc
    bool ProcessArgument(std::string const& argument);

    /// Creates or truncates the file, writes the header, adjusts the manager's mask, registers the
    /// listener, and opens a root context that becomes the calling thread's current context. The
    /// host enables the manager before: otherwise the file gets its header only. An open client is
    /// closed first. @return false, changing nothing, when no file name is set, and in a child
    /// forked after Enable.
    ///
    /// Cost: takes locks; allocates; opens a file.
    /// @throws std::runtime_error "failed to open file"; std::bad_alloc; what a synchronous
    ///         consumer throws. The client is closed then, with nothing registered.
    bool Open();

    /// Closes the root context, waits up to 5000 ms until everything queued so far is in the file,
    /// ends the registration and closes the file. Nothing is written to the file afterwards, but by
    /// a write that has not returned within a second more. The manager's mask stays as it is. Does
    /// nothing when closed.
    ///
    /// Cost: blocks until the flush ends; takes locks.
    void Close() noexcept;

private:
    void AdjustFilterBits();
    void ReleaseListener() noexcept;

    bool m_isOpen = false;
    std::unique_ptr<Context> m_context;
    std::string m_outputFileName;
    std::uint64_t m_setBits = 0;
    std::uint64_t m_clearBits = 0;
    bool m_setBitsAbsolute = false;
    korsys::RefCntPtr<Listener> m_listener;
};

/// The writing half of the raw client: writes each event that it is given as one line, in one
/// write. Only MetricsRawClient::Open makes one, with its file.
///
/// Write failures are not reported: after the first, every later line is dropped until the client
/// is opened again.
///
/// Thread-safety: one thread at a time for each object.
class METRICS_EXPORT MetricsRawClient::Listener final : public IMetricsListener {
public:
    /// A listener without a file, which writes nothing.
    Listener() noexcept;

    /// Closes the file.
    ~Listener() override;

    /// Writes the event's line.
    /// Cost: one write(2); allocates only for a line longer than any before.
    /// @throws std::bad_alloc before anything of the line was written.
    void OnMetricsEvent(const MetricsEvent& event) override;

private:
    friend class MetricsRawClient;
    class Stream;

    std::unique_ptr<Stream> m_stream;
};

} // namespace Metrics

#endif // METRICS_RAW_CLIENT_H
