#include "log_tail.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

/// Where the last lines are looked for; a log of a service is smaller.
constexpr std::streamoff furthestFromEnd = std::streamoff{16} << 20;

}  // namespace

LogTail::LogTail(std::string path) : m_path(std::move(path)) {
    if (!open()) {
        throw CtlError(ExitCode::Usage, "cannot read the log " + m_path);
    }
}

bool LogTail::open() {
    struct stat before {};
    struct stat after {};
    std::ifstream file;
    do {  // until no rotation comes in between
        if (::stat(m_path.c_str(), &before) != 0) {
            return false;
        }
        file = std::ifstream(m_path, std::ios::binary);
        if (!file || ::stat(m_path.c_str(), &after) != 0) {
            return false;
        }
    } while (before.st_ino != after.st_ino);
    m_file = std::move(file);
    m_inode = after.st_ino;
    m_rest.clear();
    return true;
}

std::vector<std::string> LogTail::last(std::size_t count) {
    m_file.seekg(0, std::ios::end);
    const std::streamoff size = m_file.tellg();
    const auto start = std::max<std::streamoff>(0, size - furthestFromEnd);
    m_file.seekg(start);
    auto lines = readLines();
    if (start > 0 && !lines.empty()) {
        lines.erase(lines.begin());  // begins before what has been read
    }
    if (lines.size() > count) {
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(count));
    }
    return lines;
}

std::vector<std::string> LogTail::next() {
    auto lines = readLines();
    if (!isReplaced()) {
        return lines;
    }
    // What was written between the last read and the rotation.
    auto late = readLines();
    lines.insert(lines.end(), late.begin(), late.end());
    if (open()) {
        auto first = readLines();
        lines.insert(lines.end(), first.begin(), first.end());
    }
    return lines;
}

std::vector<std::string> LogTail::readLines() {
    constexpr std::size_t blockSize = 65536;
    std::vector<char> block(blockSize);
    std::vector<std::string> lines;
    do {
        m_file.clear();
        m_file.read(block.data(), static_cast<std::streamsize>(block.size()));
        m_rest.append(block.data(), static_cast<std::size_t>(m_file.gcount()));
    } while (m_file.gcount() > 0);
    m_file.clear();
    std::size_t start = 0;
    for (auto end = m_rest.find('\n'); end != std::string::npos; end = m_rest.find('\n', start)) {
        lines.push_back(m_rest.substr(start, end - start));
        start = end + 1;
    }
    m_rest.erase(0, start);
    return lines;
}

bool LogTail::isReplaced() {
    struct stat status {};
    if (::stat(m_path.c_str(), &status) != 0) {
        return false;  // between two files: the next look finds the new one
    }
    return status.st_ino != m_inode || status.st_size < m_file.tellg();
}

}  // namespace Hox::Ctl
