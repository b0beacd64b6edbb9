#ifndef KORSYS_REF_CNT_OBJECT_H
#define KORSYS_REF_CNT_OBJECT_H

#include <korsys/Export.h>

#include <atomic>
#include <cstddef>
#include <new>

namespace korsys {

/// Base of objects that count their own references. A new object has none; the first RefCntPtr
/// takes one, and the object is deleted when the last is given up, on whichever thread that is.
///
/// Until the first lasting reference exists, do not make a temporary RefCntPtr from `this` (in a
/// constructor, say): giving it up takes the count back to zero and deletes the object.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: one atomic increment or decrement for each reference; takes no lock.
class KORSYS_EXPORT RefCntObject {
public:
    RefCntObject() noexcept = default;
    RefCntObject(const RefCntObject&) = delete;
    RefCntObject& operator=(const RefCntObject&) = delete;
    virtual ~RefCntObject();

    /// Takes one reference.
    void AddReference() const noexcept;

    /// Gives up one reference; deletes the object when it was the last.
    void RemoveReference() const noexcept;

    /// Counted objects are allocated and freed inside the library that declares this class.
    /// @throws std::bad_alloc
    static void* operator new(std::size_t size);
    /// The same for over-aligned classes.
    /// @throws std::bad_alloc
    static void* operator new(std::size_t size, std::align_val_t alignment);
    /// Frees what operator new returned.
    static void operator delete(void* memory) noexcept;
    /// Frees what the aligned operator new returned.
    static void operator delete(void* memory, std::align_val_t alignment) noexcept;

private:
    mutable std::atomic<unsigned int> m_references{0};
};

} // namespace korsys

#endif // KORSYS_REF_CNT_OBJECT_H
