#pragma once

#include <string>
#include <vector>

namespace Hox::Testing {

/// A command line as main gets it, which lives as long as the object.
class Arguments {
public:
    /// The texts behind the program's name, which is "program".
    explicit Arguments(const std::vector<std::string>& arguments);
    ~Arguments() = default;
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;
    Arguments(Arguments&&) = delete;
    Arguments& operator=(Arguments&&) = delete;

    /// The number of texts, the program's name included.
    int argc() const { return static_cast<int>(m_texts.size()); }

    /// The texts, with a null pointer behind the last one.
    char** argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

}  // namespace Hox::Testing
