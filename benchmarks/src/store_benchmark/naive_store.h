#pragma once

#include <google/protobuf/any.pb.h>

#include <filesystem>
#include <map>
#include <string>

#include "hox/observer_tree/data_tree.h"

namespace Hox::Benchmarks {

/// The obvious way to keep values in files: the same files, with the same calls of the standard
/// library and the same conversions, value by value.
class NaiveStore {
public:
    using Values = std::map<std::string, google::protobuf::Any>;

    /// Writes the current value of each key.
    static void save(const Hox::ObserverTree::ChangeSetType& changes,
                     const std::filesystem::path& folder);

    /// Reads all values below the folder.
    static Values load(const std::filesystem::path& folder);
};

}  // namespace Hox::Benchmarks
