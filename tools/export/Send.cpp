#include "Send.h"

#include "../Load.h"
#include "../Reader.h"
#include "SentState.h"
#include "SpanFollower.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace Metrics::tools {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

/// So large are requests, before they are compressed, unless the collector wants smaller ones.
constexpr std::size_t fullRequest = 2 << 20;
/// And no larger than this.
constexpr std::size_t largestRequest = (4 << 20) - 1;

/// Some spans of one run.
struct Batch {
    RunIdentity run;
    std::shared_ptr<SentState> state;
    EncodedSpans spans;
    struct Id {
        SpanId id;
        std::uint64_t number;
    };
    std::vector<Id> ids; ///< of each span
};

/// Posts batches one after the other, on a thread of its own. A few may wait; then Push() does.
///
/// Thread-safety: one thread at a time for each object.
class Poster {
public:
    Poster(const SendOptions& options, const std::function<void(const std::string&)>& problem)
        : m_options(&options),
          m_problem(&problem),
          m_encoder(MakeOtlpEncoder(options.collector.encoding)),
          m_collector(options.collector, [this] { return IsTimeUp(); }),
          m_thread([this] { Run(); }) {}

    ~Poster() { Finish(); }

    Poster(const Poster&) = delete;
    Poster& operator=(const Poster&) = delete;

    /// @param isStopped asked while there is no room.
    /// @return false when there is no use in going on.
    template <class IsStopped>
    bool Push(Batch batch, IsStopped isStopped) {
        std::unique_lock lock(m_mutex);
        while (m_waiting.size() >= mostWaiting && !m_hasFailed) {
            m_changed.wait_for(lock, std::chrono::milliseconds(100));
            if (isStopped())
                return false;
        }
        if (m_hasFailed)
            return false;
        m_waiting.push_back(std::move(batch));
        m_changed.notify_all();
        return true;
    }

    bool HasFailed() const {
        const std::lock_guard lock(m_mutex);
        return m_hasFailed;
    }

    /// How large a request should be, for this collector.
    std::size_t Room() const { return m_room; }

    /// What waits has so long from now on; nothing is sent twice.
    void HurryUp(Seconds rest) {
        const std::lock_guard lock(m_mutex);
        m_timeUp = Clock::now() + std::chrono::duration_cast<Clock::duration>(rest);
        m_changed.notify_all();
    }

    /// Sends what waits.
    SendResult Finish() {
        {
            const std::lock_guard lock(m_mutex);
            m_isFinishing = true;
            m_changed.notify_all();
        }
        if (m_thread.joinable())
            m_thread.join();
        m_result.isComplete = !m_hasFailed;
        return m_result;
    }

private:
    static constexpr std::size_t mostWaiting = 2;

    void Run() {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return !m_waiting.empty() || m_isFinishing; });
            if (m_waiting.empty())
                return;
            const Batch batch = std::move(m_waiting.front());
            m_waiting.pop_front();
            lock.unlock();
            m_changed.notify_all();
            bool isDone = false;
            try {
                isDone = SendPart(batch, 0, batch.ids.size());
            } catch (const std::exception& error) {
                (*m_problem)(error.what());
            }
            lock.lock();
            if (isDone)
                continue;
            m_hasFailed = true;
            m_waiting.clear();
            m_changed.notify_all();
            return;
        }
    }

    /// @return false when it could not be sent, now or ever: nothing behind it is to be, either.
    bool SendPart(const Batch& batch, std::size_t begin, std::size_t end) {
        const std::string request = m_encoder->MakeRequest(batch.run, batch.spans, begin, end);
        const std::size_t count = end - begin;
        Collector::Answer answer;
        bool isTooLarge = request.size() > (count > 1 ? m_largest : largestRequest);
        if (!isTooLarge) {
            if (!PostUntilAnswered(request, answer))
                return false;
            isTooLarge = answer.status == 413;
            if (isTooLarge && count > 1) {
                m_largest = std::min(m_largest, request.size() - 1);
                m_room = std::min<std::size_t>(m_room, request.size() / 2);
            }
        }
        if (isTooLarge && count > 1)
            return SendPart(batch, begin, begin + count / 2) &&
                   SendPart(batch, begin + count / 2, end);
        if (isTooLarge) {
            Reject(1, "a span of " + std::to_string(request.size()) + " bytes is too large");
        } else if (answer.IsAccepted()) {
            const auto rejected = std::min<std::uint64_t>(
                count,
                static_cast<std::uint64_t>(std::max<std::int64_t>(answer.accepted.rejected, 0)));
            m_result.spans += count - rejected;
            ++m_result.requests;
            if (rejected > 0)
                Reject(rejected, answer.accepted.message);
            else if (!answer.accepted.message.empty())
                (*m_problem)("the collector says: " + answer.accepted.message);
        } else if (IsOurFault(answer.status)) {
            (*m_problem)(TracesUrl(m_options->collector.url) + ": " + answer.problem);
            return false;
        } else {
            Reject(count, answer.problem);
        }
        for (std::size_t i = begin; i < end; ++i)
            batch.state->Add(batch.ids[i].id, batch.ids[i].number);
        const std::string problem = batch.state->Save();
        if (!problem.empty() && !std::exchange(m_hasToldState, true))
            (*m_problem)(problem + "; all will be sent again next time");
        return true;
    }

    /// Not of these spans, but of how they are sent: the wrong address, no permission.
    static bool IsOurFault(long status) {
        return status == 401 || status == 403 || status == 404 || status == 405 || status == 415 ||
               (status >= 300 && status < 400);
    }

    void Reject(std::uint64_t count, const std::string& why) {
        m_result.rejected += count;
        (*m_problem)(std::to_string(count) + (count == 1 ? " span was" : " spans were") +
                     " rejected" + (why.empty() ? "" : ": " + why));
    }

    bool PostUntilAnswered(const std::string& request, Collector::Answer& answer) {
        double pause = 0.5;
        bool isTold = false;
        const Clock::time_point start = Clock::now();
        for (;;) {
            answer = m_collector.Post(request);
            if (!answer.IsForLater()) {
                if (isTold)
                    (*m_problem)("the collector is back");
                return true;
            }
            const double wait = answer.retryAfter >= 0 ? answer.retryAfter : pause * Jitter();
            const Seconds spent = Clock::now() - start;
            const bool isLate =
                !m_options->isFollowing && spent.count() + wait > m_options->patience;
            if (isLate || !std::exchange(isTold, true))
                (*m_problem)(TracesUrl(m_options->collector.url) + ": " + answer.problem +
                             (isLate ? "; given up" : "; trying again"));
            if (isLate || !Sleep(wait))
                return false;
            pause = std::min(pause * 2, 30.0);
        }
    }

    double Jitter() { return std::uniform_real_distribution(0.8, 1.2)(m_random); }

    /// @return false when there is no time for it.
    bool Sleep(double seconds) {
        std::unique_lock lock(m_mutex);
        const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            Seconds(std::min(seconds, 1e6)));
        return !m_changed.wait_until(lock, end, [this] { return m_timeUp.has_value(); });
    }

    bool IsTimeUp() const {
        const std::lock_guard lock(m_mutex);
        return m_timeUp && Clock::now() > *m_timeUp;
    }

    const SendOptions* m_options;
    const std::function<void(const std::string&)>* m_problem;
    std::unique_ptr<OtlpEncoder> m_encoder;
    std::atomic<std::size_t> m_room = fullRequest;
    // Of the thread, until it has ended.
    Collector m_collector;
    SendResult m_result;
    std::size_t m_largest = largestRequest; ///< of several spans: larger ones were refused
    bool m_hasToldState = false;
    std::minstd_rand m_random{std::random_device()()};

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Batch> m_waiting; ///< this and what follows is under the mutex
    std::optional<Clock::time_point> m_timeUp;
    bool m_isFinishing = false;
    bool m_hasFailed = false;
    std::thread m_thread; ///< last: it uses the others
};

/// One run on its way from the file to the poster.
class RunSender {
public:
    RunSender(std::string path, const SendOptions& options, Poster& poster,
              std::function<bool()> isStopped)
        : m_path(std::move(path)),
          m_options(&options),
          m_poster(&poster),
          m_isStopped(std::move(isStopped)),
          m_encoder(MakeOtlpEncoder(options.collector.encoding)) {}

    /// @param known of the run's roots, as far as they were looked up beforehand.
    void Begin(SpanFollower::Limits limits, HeadersByContext known) {
        m_follower.emplace(Identify(m_path, noThread, 0, m_options->service, m_options->host),
                           limits, std::move(known),
                           [this](const Span& span, std::uint64_t number) { Take(span, number); });
        m_batch = {};
    }

    /// @return false when there is no use in going on.
    bool Add(const EventBatch& events) {
        for (const Event& event : events.events) {
            m_follower->Add(event);
            if (m_isEnding)
                return false;
        }
        return true;
    }

    void Finish() {
        m_follower->Finish();
        Flush();
    }

    /// Nothing new has come for a while.
    void SettleAll() {
        if (m_follower)
            m_follower->SettleAll();
    }

    /// Hands over what there is.
    bool Flush() {
        if (!m_batch.ids.empty() && !m_isEnding) {
            Batch next;
            next.run = m_batch.run;
            next.state = m_batch.state;
            m_isEnding = !m_poster->Push(std::exchange(m_batch, std::move(next)), m_isStopped);
        }
        return !m_isEnding;
    }

    std::uint64_t SentBefore() const { return m_sentBefore; }

private:
    void Take(const Span& span, std::uint64_t number) {
        if (m_isEnding)
            return;
        if (m_batch.state == nullptr) {
            m_batch.run = m_follower->Identity();
            m_batch.state =
                std::make_shared<SentState>(RememberedPath(), TracesUrl(m_options->collector.url));
            m_batch.state->Load(SpanIds(m_batch.run).Run());
            m_before = *m_batch.state;
            m_perRequest = m_encoder->PerRequest(m_batch.run);
        }
        if (m_before->Has(span.id, number)) {
            ++m_sentBefore;
            return;
        }
        m_encoder->Add(span, m_batch.run.start, m_batch.spans);
        m_batch.ids.push_back({span.id, number});
        const std::size_t size =
            m_perRequest + m_batch.spans.bytes.size() + OtlpEncoder::perSpan * m_batch.ids.size();
        if (size >= m_poster->Room())
            Flush();
    }

    /// Only beside a regular file.
    std::string RememberedPath() const {
        struct stat status {};
        const bool isFile = stat(m_path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
        return isFile && m_path != "-" ? m_path : std::string();
    }

    std::string m_path;
    const SendOptions* m_options;
    Poster* m_poster;
    std::function<bool()> m_isStopped;
    std::unique_ptr<OtlpEncoder> m_encoder;
    std::optional<SpanFollower> m_follower;
    Batch m_batch;
    std::size_t m_perRequest = 0;
    std::optional<SentState> m_before; ///< what it was when this began
    std::uint64_t m_sentBefore = 0;
    bool m_isEnding = false;
};

/// What the roots of a file say of their traces, wherever it stands.
HeadersByContext FindHeaders(const std::string& path) {
    HeadersByContext headers;
    struct stat status {};
    if (path == "-" || stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return headers; // it can be read once only
    const std::unique_ptr<Reader> reader = OpenCsv(path);
    EventBatch batch;
    while (reader->Read(batch))
        for (const Event& event : batch.events)
            if (event.type == EventType::Attribute &&
                (event.first == givenTraceParent || event.first == sentTraceParent))
                headers[event.context].Take(event.first, event.second);
    return headers;
}

/// All that files hold.
SendResult SendFiles(const SendOptions& options,
                     const std::function<void(const std::string&)>& problem) {
    Poster poster(options, problem);
    SendResult counts;
    constexpr auto unlimited = std::numeric_limits<std::size_t>::max();
    for (const std::string& path : options.paths) {
        try {
            RunSender run(path, options, poster, [] { return false; });
            run.Begin({unlimited, unlimited}, FindHeaders(path));
            const std::unique_ptr<Reader> reader = OpenCsv(path);
            ++counts.runs;
            EventBatch batch;
            bool isUseful = true;
            while (isUseful && reader->Read(batch))
                isUseful = run.Add(batch);
            if (isUseful)
                run.Finish();
            TellDamage(path, reader->GetDamage(), problem);
            counts.sentBefore += run.SentBefore();
        } catch (const ReadError& error) {
            problem(error.what());
        }
    }
    SendResult result = poster.Finish();
    result.runs = counts.runs;
    result.sentBefore = counts.sentBefore;
    return result;
}

/// The signals that end the following are taken one by one, where that is convenient.
class EndingSignals {
public:
    EndingSignals() {
        sigemptyset(&m_signals);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP})
            sigaddset(&m_signals, signal);
        pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    }

    /// @return whether there was one, now or before.
    bool Wait(std::chrono::milliseconds time) {
        const timespec limit{time.count() / 1000, time.count() % 1000 * 1'000'000};
        m_hasCome = m_hasCome || sigtimedwait(&m_signals, nullptr, &limit) > 0;
        return m_hasCome;
    }

private:
    sigset_t m_signals{};
    bool m_hasCome = false;
};

/// A file that is being written; it need not be there yet, and may be begun anew.
class FollowedFile {
public:
    FollowedFile(std::string path, const SendOptions& options, Poster& poster,
                 std::function<bool()> isStopped,
                 const std::function<void(const std::string&)>& problem)
        : m_path(std::move(path)),
          m_run(m_path, options, poster, std::move(isStopped)),
          m_problem(&problem) {}

    /// @return whether there was anything new.
    bool Read() {
        try {
            const Fate fate = m_reader != nullptr || m_isUnreadable ? FindFate() : Fate::Same;
            if (m_isUnreadable && fate == Fate::Same)
                return false;
            // What is left of a file that was replaced can still be read.
            if (m_reader != nullptr && fate == Fate::Replaced && m_reader->Read(m_batch))
                return m_run.Add(m_batch);
            if (fate != Fate::Same) {
                m_run.Flush();
                m_reader.reset();
                m_isUnreadable = false;
            }
            if (m_reader == nullptr && !Open())
                return false;
            return m_reader->Read(m_batch) && m_run.Add(m_batch);
        } catch (const ReadError& error) {
            (*m_problem)(error.what());
            m_reader.reset();
            m_isUnreadable = true;
            return false;
        }
    }

    /// Until another one takes its place.
    bool IsUnreadable() const { return m_isUnreadable; }

    void SettleAll() { m_run.SettleAll(); }
    bool Flush() { return m_run.Flush(); }
    std::uint64_t SentBefore() const { return m_run.SentBefore(); }

private:
    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        bool isRegular = false;
    };

    std::optional<Identity> Look() const {
        struct stat status {};
        if (m_path == "-")
            return Identity{};
        if (stat(m_path.c_str(), &status) != 0)
            return std::nullopt;
        return Identity{status.st_dev, status.st_ino, status.st_size, S_ISREG(status.st_mode)};
    }

    bool Open() {
        const std::optional<Identity> identity = Look();
        if (!identity || (identity->isRegular && identity->size == 0))
            return false; // not yet
        m_identity = *identity;
        m_reader = OpenCsv(m_path, true);
        m_run.Begin({}, {});
        return true;
    }

    enum class Fate {
        Same,
        Replaced, ///< by another file
        Emptied,  ///< and begun anew
    };

    Fate FindFate() {
        const std::optional<Identity> now = Look();
        if (!now || !m_identity.isRegular)
            return Fate::Same;
        if (now->inode != m_identity.inode || now->device != m_identity.device)
            return Fate::Replaced;
        const bool isSmaller = now->size < m_identity.size;
        m_identity.size = now->size;
        return isSmaller ? Fate::Emptied : Fate::Same;
    }

    std::string m_path;
    RunSender m_run;
    const std::function<void(const std::string&)>* m_problem;
    std::unique_ptr<Reader> m_reader;
    Identity m_identity;
    bool m_isUnreadable = false;
    EventBatch m_batch;
};

SendResult FollowFiles(const SendOptions& options,
                       const std::function<void(const std::string&)>& problem) {
    using std::chrono::milliseconds;
    EndingSignals signals; // before there is another thread
    Poster poster(options, problem);
    const auto isStopped = [&] { return signals.Wait(milliseconds(0)); };
    std::deque<FollowedFile> files;
    for (const std::string& path : options.paths)
        files.emplace_back(path, options, poster, isStopped, problem);
    Clock::time_point lastFlush = Clock::now();
    Clock::time_point lastNews = lastFlush;
    bool isIdle = false;
    std::size_t readable = files.size();
    while (!signals.Wait(milliseconds(isIdle ? 200 : 0)) && !poster.HasFailed()) {
        isIdle = true;
        for (FollowedFile& file : files)
            if (file.Read())
                isIdle = false;
        readable = static_cast<std::size_t>(std::count_if(
            files.begin(), files.end(), [](const auto& file) { return !file.IsUnreadable(); }));
        if (readable == 0)
            break;
        if (!isIdle)
            lastNews = Clock::now();
        else if (Clock::now() - lastNews > std::chrono::seconds(1))
            for (FollowedFile& file : files)
                file.SettleAll();
        if (isIdle || Clock::now() - lastFlush > std::chrono::seconds(1)) {
            for (FollowedFile& file : files)
                file.Flush();
            lastFlush = Clock::now();
        }
    }
    poster.HurryUp(Seconds(3));
    std::uint64_t sentBefore = 0;
    for (FollowedFile& file : files) {
        file.Flush();
        sentBefore += file.SentBefore();
    }
    SendResult result = poster.Finish();
    result.runs = readable;
    result.sentBefore = sentBefore;
    return result;
}

} // namespace

SendResult Send(const SendOptions& options,
                const std::function<void(const std::string&)>& problem) {
    std::mutex mutex;
    const std::function<void(const std::string&)> tell = [&](const std::string& message) {
        const std::lock_guard lock(mutex);
        problem(message);
    };
    return options.isFollowing ? FollowFiles(options, tell) : SendFiles(options, tell);
}

} // namespace Metrics::tools
