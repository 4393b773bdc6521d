#include "hox/testing/temp_dir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

namespace Hox::Testing {

namespace {

/// Tells child processes where to create their folders: "<id of the process that set it>:<folder>".
constexpr auto variable = "HALVO_TEST_CHILD_FOLDER";

/// In a child process, forked or newly started, the folder that its parent provides for it.
std::optional<std::filesystem::path> folderOfChild() {
    const char* value = std::getenv(variable);
    if (value == nullptr) {
        return std::nullopt;
    }
    const std::string text = value;
    const auto end = text.find(':');
    if (text.substr(0, end) == std::to_string(getpid())) {
        return std::nullopt;
    }
    return text.substr(end + 1);
}

/// Keeps the folder from before the first test, while there is only one thread, until after the
/// last one.
class FolderForChildren : public ::testing::Environment {
public:
    void SetUp() override {
        if (!folderOfChild()) {
            m_folder = std::make_unique<TempDir>();
            const auto value = std::to_string(getpid()) + ":" + m_folder->path().string();
            setenv(variable, value.c_str(), 1);
        }
    }
    void TearDown() override {
        if (m_folder) {
            unsetenv(variable);
            m_folder.reset();
        }
    }

private:
    std::unique_ptr<TempDir> m_folder;
};

const auto* const folderForChildren = ::testing::AddGlobalTestEnvironment(new FolderForChildren);

}  // namespace

TempDir::TempDir() : TempDir(std::filesystem::temp_directory_path()) {}

TempDir::TempDir(const std::filesystem::path& parent) {
    auto pattern = (folderOfChild().value_or(parent) / "halvo-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;  // other users' files stay
    std::filesystem::remove_all(m_path, ignored);
}

const std::filesystem::path& TempDir::path() const {
    return m_path;
}

std::filesystem::path TempDir::operator/(const std::string& name) const {
    return m_path / name;
}

}  // namespace Hox::Testing
