#pragma once

#include <string>
#include <vector>

namespace Hox::Testing {

/// A command line in the form that main gets, valid as long as the object.
class Arguments {
public:
    /// The texts after the program's name, which is "program".
    explicit Arguments(const std::vector<std::string>& arguments);
    ~Arguments() = default;
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;
    Arguments(Arguments&&) = delete;
    Arguments& operator=(Arguments&&) = delete;

    /// The number of texts, including the program's name.
    int argc() const { return static_cast<int>(m_texts.size()); }

    /// The texts, with a null pointer after the last one.
    char** argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

}  // namespace Hox::Testing
