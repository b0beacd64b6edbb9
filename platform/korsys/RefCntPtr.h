#ifndef KORSYS_REF_CNT_PTR_H
#define KORSYS_REF_CNT_PTR_H

#include <korsys/RefCntObject.h>
#include <korsys/ThrowLogicException.h>

#include <type_traits>
#include <utility>

namespace korsys {

/// Smart pointer to an object that counts its own references through `Base`.
///
/// Thread-safety: one thread at a time for each object; the object pointed to may be shared.
/// Errors: dereferencing a null pointer throws std::logic_error with the text "m_ptr".
/// Cost: a copy is one atomic increment, a move none; takes no lock and allocates nothing.
template <class T, class Base = RefCntObject>
class RefCntPtr {
public:
    /// A null pointer.
    RefCntPtr() noexcept = default;
    /// A null pointer.
    RefCntPtr(std::nullptr_t) noexcept {}
    /// Takes a reference to `object`, which may be null.
    explicit RefCntPtr(T* object) noexcept : m_ptr(object) { Take(); }
    /// Takes one more reference.
    RefCntPtr(const RefCntPtr& other) noexcept : m_ptr(other.m_ptr) { Take(); }
    /// Takes over the reference of `other`, which becomes null.
    RefCntPtr(RefCntPtr&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}

    /// Takes one more reference to an object of a derived class.
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefCntPtr(const RefCntPtr<U, Base>& other) noexcept : m_ptr(other.Get()) {
        Take();
    }

    /// Gives the reference up; with the last one the object is deleted.
    ~RefCntPtr() {
        if (m_ptr != nullptr)
            static_cast<const Base*>(m_ptr)->RemoveReference();
    }

    /// Gives up the old reference after the new one was taken.
    RefCntPtr& operator=(RefCntPtr other) noexcept {
        std::swap(m_ptr, other.m_ptr);
        return *this;
    }

    /// The object, or null.
    T* Get() const noexcept { return m_ptr; }

    /// The object. @throws std::logic_error when the pointer is null.
    T* operator->() const { return Checked(); }
    /// The object. @throws std::logic_error when the pointer is null.
    T& operator*() const { return *Checked(); }
    /// Whether the pointer is not null.
    explicit operator bool() const noexcept { return m_ptr != nullptr; }

    /// Whether both point to the same object.
    friend bool operator==(const RefCntPtr& a, const RefCntPtr& b) noexcept {
        return a.m_ptr == b.m_ptr;
    }
    /// Whether they do not.
    friend bool operator!=(const RefCntPtr& a, const RefCntPtr& b) noexcept {
        return a.m_ptr != b.m_ptr;
    }

private:
    void Take() const noexcept {
        if (m_ptr != nullptr)
            static_cast<const Base*>(m_ptr)->AddReference();
    }

    T* Checked() const {
        if (m_ptr == nullptr)
            ThrowLogicException(__FILE__, __LINE__, "m_ptr");
        return m_ptr;
    }

    T* m_ptr = nullptr;
};

/// Makes an object and the first pointer to it.
/// Cost: one allocation and one atomic increment.
/// @throws std::bad_alloc, and whatever the constructor throws.
template <class T, class... Args>
RefCntPtr<T> MakeRefCnt(Args&&... args) {
    return RefCntPtr<T>(new T(std::forward<Args>(args)...));
}

} // namespace korsys

#endif // KORSYS_REF_CNT_PTR_H
