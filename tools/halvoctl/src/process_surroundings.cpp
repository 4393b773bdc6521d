#include "process_surroundings.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

namespace Hox::Ctl {

namespace {

std::string variable(const std::string& name) {
    const char* const value = std::getenv(name.c_str());
    return value == nullptr ? "" : value;
}

}  // namespace

ProcessSurroundings::ProcessSurroundings()
    : m_inputBytes(STDIN_FILENO, m_interrupt),
      m_surroundings{m_input,
                     std::cout,
                     std::cerr,
                     m_interrupt,
                     makeChannel,
                     std::chrono::system_clock::now,
                     variable,
                     ::isatty(STDIN_FILENO) == 1,
                     ::isatty(STDOUT_FILENO) == 1} {
    m_input.exceptions(std::ios::badbit);
}

}  // namespace Hox::Ctl
