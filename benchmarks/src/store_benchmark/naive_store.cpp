#include "store_benchmark/naive_store.h"

#include <google/protobuf/util/json_util.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace fs = std::filesystem;

namespace Hox::Benchmarks {

void NaiveStore::save(const Hox::ObserverTree::ChangeSetType& changes, const fs::path& folder) {
    for (const auto& [key, keyChanges] : changes) {
        const fs::path directory = folder / key.substr(1);
        fs::create_directories(directory);
        std::string json;
        if (!google::protobuf::util::MessageToJsonString(*keyChanges.front().current->toAny(),
                                                         &json)
                 .ok()) {
            throw std::runtime_error("No JSON for " + key);
        }
        std::ofstream(directory / "data~", std::ios::binary | std::ios::trunc) << json;
        fs::rename(directory / "data~", directory / "data");
    }
}

NaiveStore::Values NaiveStore::load(const fs::path& folder) {
    Values values;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file() || entry.path().filename() != "data") {
            continue;
        }
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string json{std::istreambuf_iterator<char>(file),
                               std::istreambuf_iterator<char>()};
        google::protobuf::Any value;
        if (!google::protobuf::util::JsonStringToMessage(json, &value).ok()) {
            throw std::runtime_error("Broken: " + entry.path().string());
        }
        const auto key = entry.path().parent_path().native().substr(folder.native().size());
        values.emplace(key, std::move(value));
    }
    return values;
}

}  // namespace Hox::Benchmarks
