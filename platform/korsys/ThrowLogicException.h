#ifndef KORSYS_THROW_LOGIC_EXCEPTION_H
#define KORSYS_THROW_LOGIC_EXCEPTION_H

#include <korsys/Export.h>

namespace korsys {

/// Throws a std::logic_error whose text is `text`, followed by the file and the line in brackets.
///
/// Thread-safety: safe from any thread at any time.
/// Cost: takes no lock; allocates.
[[noreturn]] KORSYS_EXPORT void ThrowLogicException(char const* file, int line, char const* text);

} // namespace korsys

#endif // KORSYS_THROW_LOGIC_EXCEPTION_H
