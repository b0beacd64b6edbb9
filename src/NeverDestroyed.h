#ifndef METRICS_SRC_NEVER_DESTROYED_H
#define METRICS_SRC_NEVER_DESTROYED_H

namespace Metrics::detail {

/// A static object whose destructor does not run: what is used behind the last destructor of the
/// process stays as it is.
template <class T>
class NeverDestroyed {
public:
    constexpr NeverDestroyed() noexcept : m_value() {}
    ~NeverDestroyed() {} // NOLINT(modernize-use-equals-default): a union's is deleted then
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T& operator*() noexcept { return m_value; }
    T* operator->() noexcept { return &m_value; }

private:
    union {
        T m_value;
    };
};

} // namespace Metrics::detail

#endif // METRICS_SRC_NEVER_DESTROYED_H
