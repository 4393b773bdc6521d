#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Hox::Capability::Configuration {

/// What the file of a text holds.
std::string asJson(const std::string& text);

/// Writes a file in a folder that is made if missing.
void write(const std::filesystem::path& file, const std::string& text);

std::string read(const std::filesystem::path& file);

/// The relative names of everything but folders, sorted.
std::vector<std::string> filesOf(const std::filesystem::path& dir);

/// A package of all that is in the folder, whatever its size.
std::string pack(const std::filesystem::path& dir);

}  // namespace Hox::Capability::Configuration
