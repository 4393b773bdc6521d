#pragma once

#include <spdlog/fwd.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "hox/cpputil/log/logger_name.h"
#include "hox/observer_tree/path_components.h"

namespace Hox::ObserverTree {

/// Parses and compares keys, key patterns and function tree addresses.
///
/// No state except its logger: any number of threads may use their own instances. Comparison is
/// byte by byte, without normalisation.
class PathManipulation {
public:
    /// Gets the logger of the class; throws what the log system throws.
    PathManipulation();

    /// Splits the path into its components. Throws PathError if it is malformed for its type.
    PathComponents parsePath(PathType type, const std::string& path) const;

    /// Whether the parsed key matches the parsed pattern. Components after a DoubleStar are not
    /// compared. Throws std::bad_variant_access if a pattern with a DoubleStar ends in a literal
    /// and the components before the DoubleStar match, or if a literal is compared with a wildcard
    /// in the key.
    bool matches(const PathComponents& pathComponents,
                 const PathComponents& matcherComponents) const;

    /// Whether parsePath accepts the text as a key.
    bool isKey(std::string_view text) const;

    /// Gives the same result or exception as parsing the key and matching it, but without building
    /// its components.
    bool keyMatches(const std::string& key, const PathComponents& matcherComponents) const;

    /// The components joined with '/', without a leading slash.
    std::string componentsToString(const PathComponents& components) const;

    /// Dumps the components to standard output, one per line. For diagnosis.
    void printComponents(const PathComponents& components, const std::string& prefix) const;

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

private:
    std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace Hox::ObserverTree
