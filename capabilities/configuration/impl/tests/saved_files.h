#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Hox::Capability::Configuration {

/// The content of the file of a text.
std::string asJson(const std::string& text);

/// Writes a file; creates its folder if missing.
void write(const std::filesystem::path& file, const std::string& text);

std::string read(const std::filesystem::path& file);

/// The relative names of all entries except folders, sorted.
std::vector<std::string> filesOf(const std::filesystem::path& dir);

/// A package of the content of the folder, of any size.
std::string pack(const std::filesystem::path& dir);

}  // namespace Hox::Capability::Configuration
