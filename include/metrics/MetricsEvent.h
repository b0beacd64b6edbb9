#ifndef METRICS_EVENT_H
#define METRICS_EVENT_H

#include <metrics/MetricsExport.h>

#include <korsys/RefCntObject.h>
#include <korsys/RefCntPtr.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Metrics {

class MetricsValue;

namespace detail {

template <class T>
using Plain = std::remove_cv_t<std::remove_reference_t<T>>;

/// Whether it is a class that is neither a value nor a text already.
template <class T>
using IsForeignClass = std::conjunction<std::is_class<Plain<T>>,
                                        std::negation<std::is_base_of<MetricsValue, Plain<T>>>,
                                        std::negation<std::is_convertible<T, std::string_view>>,
                                        std::negation<std::is_convertible<T, std::string>>,
                                        std::negation<std::is_convertible<T, const char*>>>;

/// Overloads of which a call with an object of a class chooses that of its conversion.
struct ScalarProbe {
    static bool Of(bool);
    static char Of(char);
    static signed char Of(signed char);
    static unsigned char Of(unsigned char);
    static wchar_t Of(wchar_t);
    static char16_t Of(char16_t);
    static char32_t Of(char32_t);
#ifdef __cpp_char8_t
    static char8_t Of(char8_t);
#endif
    static short Of(short);
    static unsigned short Of(unsigned short);
    static int Of(int);
    static unsigned int Of(unsigned int);
    static long Of(long);
    static unsigned long Of(unsigned long);
    static long long Of(long long);
    static unsigned long long Of(unsigned long long);
    static float Of(float);
    static double Of(double);
    static void Of(long double);
    static void Of(const volatile void*); // which would fit bool as well
};

/// The number or the flag that a class converts to by itself. None when there is a choice, and for
/// pointers: in braces one to a function, such as that of a lambda, does not become a flag.
template <class T, class Scalar = decltype(ScalarProbe::Of(std::declval<T>())),
          class = decltype(Scalar{std::declval<T>()})>
using ScalarOf = Scalar;

} // namespace detail

/// A small tagged value: an integer, a boolean, a double or a text. Every event carries two.
///
/// Copies share the text, which never changes; moves take it over and leave the source with its
/// kind and number and no text.
///
/// Thread-safety: one thread at a time for each object; a value inside an event is read-only and
/// may be read by any number of threads.
/// Cost: building a number costs nothing but stores; building a text allocates. No locks.
class METRICS_EXPORT MetricsValue {
public:
    /// Which payload is valid. Consumers treat any other number as a value without payload.
    enum class Kind : std::int32_t { Integer = 0, Boolean = 1, Double = 2, String = 3 };

    Kind kind = Kind::Integer; ///< Which payload is valid.

    /// The payload of the scalar kinds; String does not use it.
    union {
        std::int64_t integer = 0; ///< Integer: 64 bits, read as signed.
        bool boolean;             ///< Boolean: any byte but 0 is true.
        double number;            ///< Double.
    };

    /// The payload of String, null for the other kinds and for a text that was moved away. Freed
    /// with the last value that refers to it, on whichever thread that is.
    std::shared_ptr<const std::string> text;

    /// Carried along and released with the value; nothing in the library fills or reads it.
    std::shared_ptr<const void> extra;

    /// The empty value: Integer 0.
    MetricsValue() noexcept = default;

    /// From any integral type of at most 64 bits: signed types are sign-extended, unsigned ones
    /// zero-extended; an unsigned value above 2^63-1 reads back negative.
    template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    MetricsValue(T value) noexcept : integer(static_cast<std::int64_t>(value)) {
        static_assert(sizeof(T) <= sizeof(std::int64_t), "an integer of more than 64 bits");
    }

    /// From bool only; nothing converts to it on the way.
    template <class T, std::enable_if_t<std::is_same_v<T, bool>, int> = 0, class = void>
    MetricsValue(T value) noexcept : kind(Kind::Boolean) {
        // The whole slot is written, so that equal values are equal bytes.
        boolean = value;
    }

    /// From double or float.
    template <class T,
              std::enable_if_t<std::is_same_v<T, double> || std::is_same_v<T, float>, int> = 0,
              class = void, class = void>
    MetricsValue(T value) noexcept : kind(Kind::Double), number(static_cast<double>(value)) {}

    /// Not from long double, which would lose digits: say what it is to be, `double(value)`.
    template <class T, std::enable_if_t<std::is_same_v<T, long double>, int> = 0, class = void,
              class = void, class = void>
    MetricsValue(T value) = delete;

    /// From an enumeration that converts to its integers by itself: as they would be.
    template <class T,
              std::enable_if_t<std::is_enum_v<T> && std::is_convertible_v<T, long double>, int> = 0,
              class = void, class = void, class = void, class = void>
    MetricsValue(T value) noexcept : MetricsValue(static_cast<std::underlying_type_t<T>>(value)) {}

    /// From an object that converts by itself to one of the above, such as std::atomic<int>, an
    /// element of std::vector<bool>, or a class with `operator int`.
    /// @throws what the conversion throws.
    template <class T, std::enable_if_t<detail::IsForeignClass<T>::value, int> = 0,
              class Scalar = detail::ScalarOf<T>>
    MetricsValue(T&& value) : MetricsValue(static_cast<Scalar>(std::forward<T>(value))) {}

    /// From a text, which is copied; null is the empty text.
    /// @throws std::bad_alloc
    MetricsValue(const char* value);
    /// From a text, which is copied.
    /// @throws std::bad_alloc
    MetricsValue(std::string_view value);
    /// From a text, which is copied.
    /// @throws std::bad_alloc
    MetricsValue(const std::string& value);
    /// From a text, which is taken over.
    /// @throws std::bad_alloc; `value` is then unchanged.
    MetricsValue(std::string&& value);

    /// Shares the text.
    /// Cost: one atomic increment for a text, as with the assignment; allocates nothing.
    MetricsValue(const MetricsValue&) noexcept = default;
    /// Takes the text over.
    /// Cost: a few stores, as with the assignment; allocates nothing.
    MetricsValue(MetricsValue&&) noexcept = default;
    /// Shares the text.
    MetricsValue& operator=(const MetricsValue&) noexcept = default;
    /// Takes the text over.
    MetricsValue& operator=(MetricsValue&&) noexcept = default;
    ~MetricsValue() = default;
};

static_assert(sizeof(MetricsValue) == 48, "consumers rely on the layout of a value");

/// What happened.
enum class MetricsEventType : std::int32_t {
    Shutdown = 1,       ///< The library is being switched off; asynchronous consumers never see it.
    ContextCreated = 2, ///< A context id was drawn. sourceId, param2: the id; contextId: parent.
    ContextOpened = 3,  ///< A context was opened. sourceId, param2: its id; contextId: its parent.
    ContextClosed = 4,  ///< A context was closed. sourceId, param2: its id; contextId: its parent.
    ScopeOpened = 5,    ///< A scope was opened. sourceId: its address; param1: its label.
    ScopeClosed = 6,    ///< A scope was closed. sourceId: its address; param1: its label.
    Custom = 7,         ///< The application's own. sourceId: the scope; param1, param2: as given.
    Attribute = 8,      ///< sourceId: 0; param1: the name; param2: the value.
};

/// One thing that happened: the record that travels from the emitter to the consumers.
///
/// Thread-safety: one thread at a time until it is emitted; read-only afterwards.
struct MetricsEvent {
    MetricsEventType eventType{};       ///< What happened; 0 names no event.
    std::uint64_t sourceId = 0;         ///< The object that it is about; see MetricsEventType.
    std::uint64_t contextId = 0;        ///< The context in which it happened; 0 for none.
    std::uint64_t bits = 0;             ///< Category mask; bits 12 to 63 count, see TestBits.
    std::uint64_t timestamp = 0;        ///< AppUpTime() at acceptance: steady clock, nanoseconds.
    std::uint64_t unixSeconds = 0;      ///< Wall clock at acceptance: seconds since 1970, UTC.
    std::uint32_t unixMicroseconds = 0; ///< Microseconds within that second, 0 to 999999.
    MetricsValue param1;                ///< First value.
    MetricsValue param2;                ///< Second value.
};

static_assert(sizeof(MetricsEvent) == 152, "consumers rely on the layout of an event");

/// Makes an empty event whose memory belongs to the library, so that it may outlive the plug-in
/// that asked for it.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: allocates once; takes no lock.
/// @throws std::bad_alloc
METRICS_EXPORT std::shared_ptr<MetricsEvent> MakeMetricsEvent();

/// A consumer of events. Derive from it and pass it to MetricsManager::AddConsumer.
///
/// The contract of OnMetricsEvent:
/// - A synchronous consumer is called on the emitting thread, before the emitting call returns, by
///   several threads at once: it guards its own state. An asynchronous one is called on the
///   delivery thread only, one event at a time, in the order of their stamps, each thread's own
///   order kept. No lock of the library is held during the call.
/// - AddConsumer and RemoveConsumer do nothing and return false from inside the call. On another
///   thread RemoveConsumer waits until the calls of that kind that are in progress have returned;
///   AddConsumer and emitters wait for none.
/// - It may emit. Its own events reach every other synchronous consumer, but not this one again on
///   the same thread while it is inside the call; asynchronous consumers get them later.
/// - It may call WaitUntilWritesFlushed, which returns at once, and Disable, which waits its full
///   1000 ms and returns false, since the delivery cannot end under it.
/// - While it runs, later asynchronous deliveries (or the emitting thread) wait for it.
/// - An exception from an asynchronous consumer ends that call alone. One from a synchronous
///   consumer reaches the emitting code, and the event is not queued.
/// - It must not end its thread (pthread_exit). A synchronous one is not cancelled inside of it.
/// - The event is valid during the call only; copy what you keep. Copies of a value share the text;
///   a weak pointer to it does not keep it, and it may be another text later.
class METRICS_EXPORT IMetricsListener : public korsys::RefCntObject {
public:
    ~IMetricsListener() override;

    /// Called once for each delivered event and registration. The event is the caller's; whatever
    /// is thrown is handled as the contract above says.
    ///
    /// Thread-safety: synchronous consumers are called by several threads at once.
    virtual void OnMetricsEvent(const MetricsEvent& event) = 0;
};

/// Inside OnMetricsEvent the kernel's id of the thread that has emitted the event, see gettid(2); 0
/// elsewhere.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: a few loads; takes no lock and allocates nothing.
METRICS_EXPORT std::int32_t GetEventThreadId() noexcept;

/// How listeners are held. Make one with `korsys::MakeRefCnt<MyListener>(...)`.
using MetricsListenerPtr = korsys::RefCntPtr<IMetricsListener, korsys::RefCntObject>;

} // namespace Metrics

#endif // METRICS_EVENT_H
