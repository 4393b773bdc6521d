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

/// Tells child processes where their folders lie: "<id of the process that set it>:<folder>".
constexpr auto variable = "HALVO_TEST_CHILD_FOLDER";

/// In a child process, forked or started anew, the folder that its parent has for it.
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

/// Has the folder from the first test on, while there is one thread only, to the last one.
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
    std::error_code ignored;  // what is somebody else's stays
    std::filesystem::remove_all(m_path, ignored);
}

const std::filesystem::path& TempDir::path() const {
    return m_path;
}

std::filesystem::path TempDir::operator/(const std::string& name) const {
    return m_path / name;
}

}  // namespace Hox::Testing
