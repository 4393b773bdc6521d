#include "hox/system_api/serial_records.h"

#include <rapidjson/document.h>

#include <charconv>
#include <fstream>
#include <sstream>
#include <system_error>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/string/string_utils.h"
#include "hox/system_api/error/serial_number_error.h"

namespace Hox::SystemAPI {

namespace {

/// Throws if the condition is false: the file does not have the expected content.
void require(bool condition) {
    if (!condition) {
        throw SerialNumberError("Failed to read the required properties of the serial file",
                                __FILE__, __LINE__);
    }
}

std::string contentOf(const std::filesystem::path& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string textMember(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    require(member != object.MemberEnd() && member->value.IsString());
    return {member->value.GetString(), member->value.GetStringLength()};
}

int toNumber(const std::string& digits) {
    int number = 0;
    const auto* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    require(error == std::errc() && stop == end);
    return number;
}

SerialRecord toRecord(const rapidjson::Value& object) {
    require(object.IsObject());
    const auto type = textMember(object, "type");
    const auto serial = textMember(object, "serial");
    const auto partNumber = textMember(object, "partnumber");
    const auto revision = textMember(object, "revision");
    HOX_ASSERT(CppUtil::str_isonly_digits(type));
    HOX_ASSERT(CppUtil::str_isonly_digits(partNumber));
    HOX_ASSERT(CppUtil::str_isonly_digits(revision));
    return {toNumber(type), serial, toNumber(partNumber), toNumber(revision)};
}

}  // namespace

std::vector<SerialRecord> readSerialRecords(const std::filesystem::path& path) {
    const auto text = contentOf(path);
    rapidjson::Document document;
    // Iterative, so that deep nesting does not overflow the stack.
    document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    require(!document.HasParseError() && document.IsArray());
    std::vector<SerialRecord> records;
    for (const auto& object : document.GetArray()) {
        records.push_back(toRecord(object));
    }
    return records;
}

}  // namespace Hox::SystemAPI
