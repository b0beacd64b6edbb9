#ifndef KORSYS_THROW_LOGIC_EXCEPTION_H
#define KORSYS_THROW_LOGIC_EXCEPTION_H

#include <korsys/Export.h>

namespace korsys {

/// Throws a std::logic_error whose text is `text`. File and line are for whoever looks at the stack
/// in a debugger.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: takes no lock; allocates.
[[noreturn]] KORSYS_EXPORT void ThrowLogicException(char const* file, int line, char const* text);

} // namespace korsys

#endif // KORSYS_THROW_LOGIC_EXCEPTION_H
