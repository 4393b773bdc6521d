#pragma once

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <any>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hox/configuration/conf_obstree_handler.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Capability::Configuration {

/// The packed form of a text.
google::protobuf::Any packed(const std::string& text);

/// An update of the slice mb/0/<capability>.
class Update {
public:
    explicit Update(const std::string& capability, const std::string& stateId = "");
    Update& set(const std::string& key, const std::string& text);
    Update& remove(const std::string& key);
    Update& full();

    Api::UpdateCapConfReq request;

private:
    Hox::ObserverTree::ObsTreeDataNodePair& pair(const std::string& key);
};

/// A store with its own tree and its own folder.
class ConfigurationStore : public ::testing::Test {
protected:
    ConfigurationStore();

    /// As at the start of the service: with the saved configuration.
    void start();

    Hox::ObserverTree::Status tryUpdate(const Update& update);

    /// Updates and returns the new state id.
    std::string update(const Update& request);

    /// Operations on the whole store.
    Hox::ObserverTree::Status call(const Api::UpdateSysConfReq& request);
    Hox::ObserverTree::Status save();
    Hox::ObserverTree::Status discard();
    Hox::ObserverTree::Status clear();
    Hox::ObserverTree::Status importPackage(const std::string& data);
    Hox::ObserverTree::Status exportPackage(std::string& data);

    /// Observes a slice; "<code> <key>=<text>..." for each call, "<key>=gone" for a removed key.
    std::any observe(const std::string& capability, const std::string& stateId,
                     std::vector<std::string>& told);

    /// The keys of the whole store.
    std::vector<std::string> content();

    /// Not below /tmp, which tests may hide.
    Hox::Testing::TempDir m_dir{"/dev/shm"};
    std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    std::unique_ptr<std::unique_lock<std::mutex>> m_lock;
    std::optional<Hox::ObserverTree::ObserverTree> m_tree;
    std::optional<ConfObstreeHandler> m_handler;
    std::string m_stateId;
};

}  // namespace Hox::Capability::Configuration
