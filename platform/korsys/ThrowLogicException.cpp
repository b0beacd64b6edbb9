#include <korsys/ThrowLogicException.h>

#include <stdexcept>

namespace korsys {

void ThrowLogicException(char const* /*file*/, int /*line*/, char const* text) {
    throw std::logic_error(text);
}

} // namespace korsys
