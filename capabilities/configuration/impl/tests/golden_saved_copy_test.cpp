#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "configuration_store.h"
#include "system_identity.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {
namespace {

using Hox::ObserverTree::UnaryOps;
using ::testing::ElementsAre;

/// Relative name to content of all files.
std::map<std::string, std::string> filesOf(const fs::path& dir) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        if (entry.is_regular_file()) {
            std::ifstream stream(entry.path(), std::ios::binary);
            files[entry.path().lexically_relative(dir).string()] = {
                std::istreambuf_iterator<char>(stream), {}};
        }
    }
    return files;
}

/// A saved copy as it lies on the machines out there, which every later version has to load.
class GoldenSavedCopy : public ConfigurationStore {
protected:
    const fs::path m_golden = HALVO_GOLDEN_SAVED_COPY;
    const fs::path m_saved = m_dir / "conf";
};

TEST_F(GoldenSavedCopy, IsLoadedAndSavedAgainByteForByte) {
    fs::copy(m_golden, m_saved, fs::copy_options::recursive);
    start();
    EXPECT_THAT(content(),
                ElementsAre("/sys/conf/mb/0/snmp/__csid", "/sys/conf/mb/0/snmp/traps",
                            "/sys/conf/mb/0/tuner/__csid", "/sys/conf/mb/0/tuner/filter",
                            "/sys/conf/mb/0/tuner/frequency", "/sys/conf/mb/0/tuner/name",
                            "/sys/conf/mb/0/tuner/name/short"));
    std::vector<std::string> told;
    const auto tuner = observe("tuner", "1763700000000000001", told);
    const auto snmp = observe("snmp", "1763700000000000001", told);
    EXPECT_THAT(told, ElementsAre("6",
                                  "0 /__csid /traps={\"@type\":\"type.googleapis.com/"
                                  "Hox.ObserverTree.ObserveReq\",\"keyPattern\":\"/a/**\"}"));

    Api::UpdateSysConfReq save;
    save.mutable_update_type()->set_savechanges(true);
    ASSERT_TRUE((m_tree
                     ->callApiOp<UnaryOps::UPDATE, Api::UpdateSysConfReq, Api::UpdateSysConfResp>(
                         "/sys/conf/.data.", save)
                     .status.isOk()));
    auto expected = filesOf(m_golden);
    EXPECT_EQ(expected.erase("swvariant") + expected.erase("partno"), 2U);
    EXPECT_EQ(filesOf(m_saved), expected);
}

TEST_F(GoldenSavedCopy, TellsItsMachineAsOneOfTodayDoes) {
    const SystemIdentity identity = readPackageIdentity(m_golden);
    EXPECT_EQ(describeIdentity(identity), "output: COFDM partNo:100001");
    writePackageIdentity(identity, m_saved);
    const auto golden = filesOf(m_golden);
    const auto written = filesOf(m_saved);
    ASSERT_EQ(written.size(), 2U);
    EXPECT_EQ(written.at("swvariant"), golden.at("swvariant"));
    EXPECT_EQ(written.at("partno"), golden.at("partno"));
}

}  // namespace
}  // namespace Hox::Capability::Configuration
