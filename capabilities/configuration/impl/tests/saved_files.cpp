#include "saved_files.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>

#include "hox/archive/archive.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {

std::string asJson(const std::string& text) {
    return R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":")" + text + "\"}";
}

void write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

std::string read(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> filesOf(const fs::path& dir) {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        if (!entry.is_directory()) {
            files.push_back(entry.path().lexically_relative(dir).string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string pack(const fs::path& dir) {
    const auto [bytes, size] = Hox::Archive::packToBuffer(Hox::Archive::ArchiveFormat::TarGz, dir,
                                                          std::size_t{1} << 30U, true, false);
    const std::unique_ptr<std::uint8_t[]> owned(bytes);
    return {reinterpret_cast<const char*>(bytes), size};
}

}  // namespace Hox::Capability::Configuration
