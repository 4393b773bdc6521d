#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Hox::SystemAPI {

/// The record of one module of the machine in the serial file.
struct SerialRecord {
    int type = 0;  ///< 0 is the machine itself
    std::string serial;
    int partNumber = 0;
    int revision = 0;
};

/// Reads the serial file: a JSON array of objects with the string members "type", "serial",
/// "partnumber" and "revision", in the order of the file.
///
/// Throws SerialNumberError if the file cannot be read, has another form, or contains a number
/// above the range of int. Characters other than digits in the text of a number fail an assertion.
/// Callable from any thread.
std::vector<SerialRecord> readSerialRecords(const std::filesystem::path& path);

}  // namespace Hox::SystemAPI
