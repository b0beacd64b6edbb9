#ifndef METRICS_RAW_CLIENT_H
#define METRICS_RAW_CLIENT_H

#include <metrics/MetricsBitsUtils.h>
#include <metrics/MetricsEvent.h>
#include <metrics/MetricsExport.h>
#include <metrics/MetricsFileClient.h>

#include <memory>
#include <string>
#include <system_error>

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
class METRICS_EXPORT MetricsRawClient : public MetricsFileClient {
public:
    class Listener;

    /// A closed client without settings. Touches neither the manager nor the file system.
    MetricsRawClient() noexcept;

    /// Closes the client.
    /// Cost: that of Close.
    ~MetricsRawClient();

    /// As MetricsFileClient says; programs were built against them here.
    void SetBits(std::string const& mnemonics, bool absolute);
    void ClearBits(std::string const& mnemonics);        ///< The same.
    void SetOutputFileName(std::string const& fileName); ///< The same.

    /// Takes one argument: "-set=", "-setabs=" or "-clear=" with mnemonics, or "-raw=" with the
    /// path. A later argument of the same kind replaces an earlier one. Settings take effect at the
    /// next Open. @return false, changing nothing, for any other argument.
    /// Cost: copies the argument's value; takes no lock.
    /// @throws std::bad_alloc
    bool ProcessArgument(std::string const& argument);

    /// The same, and lists may name the application's own categories as well.
    /// Cost: the same. @throws std::bad_alloc, and what `own` throws.
    bool ProcessArgument(std::string const& argument, MetricsBitsUtils::OwnMnemonics own);

    /// Creates the file or empties it, writes the header, adjusts the manager's mask, registers the
    /// listener, and opens a root context that becomes the calling thread's current context. The
    /// host enables the manager before: otherwise the file gets its header only. An open client is
    /// closed first. @return false, changing nothing, when no file name is set, and in a child
    /// forked after Enable.
    ///
    /// A file that the process's own standard output or error goes to is not emptied: the lines
    /// are written between those of the host. Other writers of the same file lose nothing, since
    /// every line is put at its end.
    ///
    /// Cost: takes locks; allocates; opens a file. Raises no signal when the header cannot be
    /// written: that is a failure like any later one, see GetFirstError.
    /// @throws std::runtime_error "failed to open file", of which GetFirstError knows the reason;
    ///         std::bad_alloc; what a synchronous consumer throws. The client is closed then, with
    ///         nothing registered.
    bool Open();

    /// The same for applications without exceptions. @return false, with the reason in `error`,
    /// where Open throws: that of GetFirstError for the file (in errno's category),
    /// std::errc::not_enough_memory, or std::errc::operation_canceled for a synchronous consumer
    /// that throws. Else `error` is cleared.
    bool Open(std::error_code& error) noexcept;

    /// Closes the root context, waits until everything that was queued by then is in the file, ends
    /// the registration and closes the file; gives up waiting after `milliseconds` of the steady
    /// clock in all. Nothing is written to the file afterwards, but by a write(2) that was in
    /// progress then (into a pipe that nobody reads, say): it is the last one. The manager's mask
    /// stays as it is.
    ///
    /// From inside OnMetricsEvent it waits for nothing: what is queued does not reach the file.
    ///
    /// @return true when every event that was queued before the call and passed is in the file, and
    ///         every write succeeded. false when time was up or a write failed (GetFirstError says
    ///         which), from inside OnMetricsEvent, and when the manager is not enabled or off,
    ///         since then nobody can tell. A closed client has nothing left to do: true.
    ///
    /// Cost: blocks, for `milliseconds` at most; takes locks; allocates. Not a cancellation point.
    bool Close(unsigned int milliseconds) noexcept;

    /// The same with 5000 milliseconds, and nobody is told: what a consumer that is slow or stuck
    /// has not let through by then is not in the file.
    void Close() noexcept;

    /// What went wrong first with the file since the last Open: with opening it, with a write, with
    /// closing it. Stays until the next Open. After the first error every later event is dropped.
    ///
    /// Cost: copies the path when there is an error; takes no lock.
    /// @throws std::bad_alloc
    MetricsFileError GetFirstError() const;

private:
    korsys::RefCntPtr<Listener> m_listener; // of the last Open; it knows the first error
};

/// The writing half of the raw client: writes each event that it is given as one line, in one
/// write. Only MetricsRawClient::Open makes one, with its file.
///
/// After the first write that fails every later line is dropped until the client is opened again;
/// MetricsRawClient::GetFirstError tells.
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
