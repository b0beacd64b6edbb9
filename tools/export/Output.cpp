#include "Output.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Metrics::tools {

Output::Output(const std::string& path)
    : m_path(path), m_file(path == "-" ? stdout : std::fopen(path.c_str(), "wbe")) {
    if (m_file == nullptr)
        Fail();
    std::setvbuf(m_file, nullptr, _IONBF, 0);
}

Output::~Output() {
    if (m_file != nullptr && m_file != stdout)
        std::fclose(m_file);
}

void Output::WriteOut() {
    if (std::fwrite(m_text.data(), 1, m_text.size(), m_file) != m_text.size())
        Fail();
    m_text.clear();
}

void Output::Finish() {
    WriteOut();
    std::FILE* const file = std::exchange(m_file, nullptr);
    if (file != stdout && std::fclose(file) != 0)
        Fail();
}

void Output::Fail() const {
    const int error = errno;
    throw std::runtime_error("cannot write " +
                             (m_path == "-" ? std::string("to the standard output") : m_path) +
                             ": " + std::generic_category().message(error));
}

} // namespace Metrics::tools
