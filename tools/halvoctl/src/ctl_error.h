#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "exit_code.h"

namespace Hox::Ctl {

/// Ends a command: the exit status, a text for the user and, where the tool knows more than the
/// text says, a hint.
class CtlError : public std::runtime_error {
public:
    /// An empty text is not printed.
    CtlError(ExitCode code, const std::string& text, std::string hint = {})
        : std::runtime_error(text), m_code(code), m_hint(std::move(hint)) {}

    /// The exit status of the program.
    ExitCode code() const { return m_code; }

    /// What the user may want to know or do. Empty: nothing.
    const std::string& hint() const { return m_hint; }

private:
    ExitCode m_code;
    std::string m_hint;
};

}  // namespace Hox::Ctl
