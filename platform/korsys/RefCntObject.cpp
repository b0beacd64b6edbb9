#include <korsys/RefCntObject.h>

namespace korsys {

// Out of line, so that the vtable and the type information stand in this library alone.
RefCntObject::~RefCntObject() = default;

void RefCntObject::AddReference() const noexcept {
    // Relaxed: whoever adds a reference already holds one, or is the only one to know the object.
    m_references.fetch_add(1, std::memory_order_relaxed);
}

void RefCntObject::RemoveReference() const noexcept {
    // Release: what this holder did comes before the deletion. Acquire: the last holder sees it.
    if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}

void* RefCntObject::operator new(std::size_t size) {
    return ::operator new(size);
}

void* RefCntObject::operator new(std::size_t size, std::align_val_t alignment) {
    return ::operator new(size, alignment);
}

void RefCntObject::operator delete(void* memory) noexcept {
    ::operator delete(memory);
}

void RefCntObject::operator delete(void* memory, std::align_val_t alignment) noexcept {
    ::operator delete(memory, alignment);
}

} // namespace korsys
