#include "persistence/node_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

namespace Hox::ObserverTree {

namespace {

constexpr mode_t fileMode = 0666;

/// Calls again as long as a signal interrupts it.
template <typename Call>
auto uninterrupted(const Call& call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

}  // namespace

NodeFile NodeFile::create(const std::string& path) {
    return NodeFile(uninterrupted([&path] {
        return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, fileMode);
    }));
}

NodeFile NodeFile::open(const std::string& path) {
    return NodeFile(uninterrupted([&path] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
}

NodeFile::~NodeFile() {
    if (isOpen()) {
        ::close(m_descriptor);
    }
}

NodeFile::NodeFile(NodeFile&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

NodeFile& NodeFile::operator=(NodeFile&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
}

void NodeFile::write(std::string_view text) const {
    while (!text.empty()) {
        const auto written =
            uninterrupted([this, text] { return ::write(m_descriptor, text.data(), text.size()); });
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::string NodeFile::readAll() const {
    struct stat status {};
    std::string content;
    if (!isOpen() || ::fstat(m_descriptor, &status) != 0) {
        return content;
    }
    content.resize(static_cast<std::size_t>(status.st_size));
    std::size_t size = 0;
    while (size < content.size()) {
        const auto count = uninterrupted([this, &content, size] {
            return ::read(m_descriptor, content.data() + size, content.size() - size);
        });
        if (count <= 0) {
            break;
        }
        size += static_cast<std::size_t>(count);
    }
    content.resize(size);
    return content;
}

}  // namespace Hox::ObserverTree
