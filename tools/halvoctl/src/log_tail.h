#pragma once

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

namespace Hox::Ctl {

/// Reads the lines of a log file from near its end on, also while its writer rotates it: renames it
/// and begins a new one under its name, or empties it.
class LogTail {
public:
    /// Opens the file. Throws CtlError if it cannot be read.
    explicit LogTail(std::string path);

    /// The last lines of the file as it is now, at most this many; following lines come from
    /// `next`.
    std::vector<std::string> last(std::size_t count);

    /// The complete lines that have been added since the last call, in order. Does not wait.
    std::vector<std::string> next();

private:
    std::vector<std::string> readLines();
    bool isReplaced();
    bool open();

    std::string m_path;
    std::ifstream m_file;
    unsigned long m_inode = 0;
    std::string m_rest;  // the begin of a line that is not complete
};

}  // namespace Hox::Ctl
