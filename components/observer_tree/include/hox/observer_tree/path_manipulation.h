#pragma once

#include <spdlog/logger.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "hox/cpputil/log/logger_name.h"
#include "hox/observer_tree/path_components.h"

namespace Hox::ObserverTree {

/// Parses and compares keys, key patterns and function tree addresses.
///
/// Without state but for its logger: any number of threads may use instances of their own.
/// Comparison is byte by byte, without normalisation.
class PathManipulation {
public:
    /// Takes the class's logger; throws what the log system throws.
    PathManipulation();

    /// Splits the path into its components. Throws PathError when it is malformed for its type.
    PathComponents parsePath(PathType type, const std::string& path) const;

    /// Whether the parsed key lies inside the parsed pattern. Components behind a DoubleStar are
    /// not compared. Throws std::bad_variant_access where a literal ends a pattern that holds a
    /// DoubleStar and the components before it match, or where a literal meets a wildcard in the
    /// key.
    bool matches(const PathComponents& pathComponents,
                 const PathComponents& matcherComponents) const;

    /// Whether parsePath takes the text as a key.
    bool isKey(std::string_view text) const;

    /// What parsing the key and matching it gives or throws, without building its components.
    bool keyMatches(const std::string& key, const PathComponents& matcherComponents) const;

    /// The components joined with '/', without a leading slash.
    std::string componentsToString(const PathComponents& components) const;

    /// Dumps the components to standard output, a line each. For diagnosis.
    void printComponents(const PathComponents& components, const std::string& prefix) const;

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

private:
    std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace Hox::ObserverTree
