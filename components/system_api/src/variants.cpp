#include "hox/system_api/variants.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <utility>

#include "hox/cpputil/error/file_system_error.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::SystemAPI {

namespace {

constexpr auto defaultVariant = HeadendSWVariant::QAM;
constexpr auto outputKey = "output";
constexpr char keyEnd = ':';
constexpr std::array names = {std::pair{HeadendSWVariant::QAM, "QAM"},
                              std::pair{HeadendSWVariant::COFDM, "COFDM"}};

HeadendSWVariant variantOf(const std::string& name) {
    const auto* const row = std::find_if(
        names.begin(), names.end(), [&name](const auto& known) { return known.second == name; });
    return row == names.end() ? HeadendSWVariant::UNKNOWN : row->first;
}

}  // namespace

const char* nameOf(HeadendSWVariant variant) {
    const auto* const row = std::find_if(names.begin(), names.end(), [variant](const auto& known) {
        return known.first == variant;
    });
    return row == names.end() ? "UNKNOWN" : row->second;
}

HeadendSWVariant deSerialize(const std::filesystem::path& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found) {
        return defaultVariant;
    }
    std::ifstream stream(path);
    return deSerialize(stream);
}

HeadendSWVariant deSerialize(std::istream& stream) {
    auto variant = defaultVariant;
    std::string key;
    while (std::getline(stream, key, keyEnd)) {
        if (key == outputKey) {
            std::string name;
            variant = std::getline(stream, name) ? variantOf(name) : HeadendSWVariant::UNKNOWN;
        }
    }
    if (stream.bad() || !stream.eof()) {
        const std::function<std::string()> _HALVOMACRO_loggerName = [] {
            return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
        };
        Log::getLogsystem()
            ->getLogger(_HALVOMACRO_loggerName())
            ->log(Log::here(), spdlog::level::err, "Failed deserializing stream");
        return HeadendSWVariant::UNKNOWN;
    }
    return variant;
}

void serialize(HeadendSWVariant variant, const std::filesystem::path& path) {
    const auto temp = path.string() + ".new";
    std::ofstream stream(temp);
    for (const auto& [known, name] : names) {
        if (known == variant) {
            stream << outputKey << keyEnd << name << '\n';
        }
    }
    stream.close();
    if (stream.fail()) {
        throw CppUtil::FileSystemError("Failed storing into \"" + temp + " \" file ", __FILE__,
                                       __LINE__);
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        throw CppUtil::FileSystemError("Failed renaming temp file errno " + std::to_string(errno),
                                       __FILE__, __LINE__);
    }
}

}  // namespace Hox::SystemAPI
