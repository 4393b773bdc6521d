#pragma once

#include <exception>
#include <string>

namespace Hox {

/// Root of all exceptions of the house. The text is complete when the object has been built.
///
/// A derived class prepends its prefix to the message and hands the result on, so that the prefixes
/// of a chain stand with that of the base first.
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
