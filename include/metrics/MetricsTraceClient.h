#ifndef METRICS_TRACE_CLIENT_H
#define METRICS_TRACE_CLIENT_H

#include <metrics/MetricsEvent.h>
#include <metrics/MetricsExport.h>
#include <metrics/MetricsFileClient.h>

#include <cstdint>
#include <string>

namespace Metrics {

/// The built-in recorder: writes every delivered event, with all that is in it, into a folder in
/// the Common Trace Format 1.8, which babeltrace2 and what is built on it read. What stands there
/// is docs/trace-format.md. It takes the same arguments for categories as MetricsRawClient and
/// lives in the same way; both may be open at once:
///
///     MetricsTraceClient client;
///     for (const std::string& argument : arguments)
///         client.ProcessArgument(argument); // -set=act,net -trace=folder -trace-keep=64M
///     MetricsManager::GetInstance()->Enable();
///     client.Open();
///
/// The folder can be read at any time, also while it is written and after the process was killed:
/// it holds all that was delivered up to the last pause of the delivery, which is that of a
/// hundredth of a second ago or less while the consumers keep up.
///
/// Thread-safety: one thread at a time for each object; Open and Close run on the same thread,
/// since the client's root context is attached to it.
class METRICS_EXPORT MetricsTraceClient : public MetricsFileClient {
public:
    /// A closed client without settings. Touches neither the manager nor the file system.
    MetricsTraceClient() noexcept;

    /// Closes the client.
    /// Cost: that of Close.
    ~MetricsTraceClient();

    /// Keeps the newest `bytes` of the trace only, for a process that runs for months: the oldest
    /// files go as new ones come. At least 64 KiB are kept; 0, as it is without, keeps everything.
    void SetKeptSize(std::uint64_t bytes) noexcept;

    /// Takes one argument: "-set=", "-setabs=" or "-clear=" with mnemonics, "-trace=" with the path
    /// of the folder, or "-trace-keep=" with a number of bytes, in digits and maybe a K, M or G
    /// behind (of 1024). A later argument of the same kind replaces an earlier one. Settings take
    /// effect at the next Open. @return false, changing nothing, for any other argument.
    /// Cost: copies the argument's value; takes no lock.
    /// @throws std::bad_alloc
    bool ProcessArgument(std::string const& argument);

    /// Creates the folder when there is none, removes the trace that it holds, writes the
    /// description of the new one, adjusts the manager's mask, registers the listener, and opens a
    /// root context, as MetricsRawClient::Open does. @return false, changing nothing, when no
    /// folder is set, and in a child forked after Enable.
    ///
    /// Cost: takes locks; allocates; opens files.
    /// @throws std::runtime_error "failed to open file", of which GetFirstError knows the reason:
    ///         EWOULDBLOCK when another process or client records into the folder, EEXIST when
    ///         what it holds is not a trace of ours; std::bad_alloc; what a synchronous consumer
    ///         throws. The client is closed then, with nothing registered.
    bool Open();

    /// Closes the root context, waits until everything that was queued by then is in the trace,
    /// ends the registration and closes the trace; gives up waiting after `milliseconds` of the
    /// steady clock in all. All as MetricsRawClient::Close does, which also says what true means.
    ///
    /// Cost: blocks, for `milliseconds` at most; takes locks; allocates. Not a cancellation point.
    bool Close(unsigned int milliseconds) noexcept;

    /// The same with 5000 milliseconds, and nobody is told.
    void Close() noexcept;

    /// What went wrong first since the last Open, with the path of the folder. Stays until the next
    /// Open. A full disk costs the events that were to be written meanwhile: once there is room
    /// again the trace goes on, and says how many are missing.
    ///
    /// Cost: copies the path when there is an error; takes no lock.
    /// @throws std::bad_alloc
    MetricsFileError GetFirstError() const;

    /// The number of events since the last Open that could not be written.
    std::uint64_t GetDiscardedEvents() const noexcept;

private:
    class Listener;

    std::uint64_t m_keptSize = 0;
    korsys::RefCntPtr<Listener> m_listener; // of the last Open; it knows the first error
};

} // namespace Metrics

#endif // METRICS_TRACE_CLIENT_H
