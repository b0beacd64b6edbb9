#include <korsys/ThrowLogicException.h>

#include <stdexcept>
#include <string>

namespace korsys {

void ThrowLogicException(char const* file, int line, char const* text) {
    throw std::logic_error(std::string(text) + " (" + file + ":" + std::to_string(line) + ")");
}

} // namespace korsys
