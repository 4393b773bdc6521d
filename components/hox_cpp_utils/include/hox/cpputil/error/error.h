#pragma once

#include <exception>
#include <string>

namespace Hox {

/// Root of all exceptions of this project. The text is complete after construction.
///
/// A derived class prepends its prefix to the message and passes the result to its base, so the
/// prefix of the base comes first.
class Error : public std::exception {
public:
    /// Keeps message + "(" + file + ":" + line + ")"; throws std::bad_alloc only.
    Error(const std::string& message, const char* file, int line);

    /// The complete text, valid as long as this object.
    const char* what() const noexcept override;

private:
    std::string m_text;
};

}  // namespace Hox
