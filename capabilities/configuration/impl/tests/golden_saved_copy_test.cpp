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

/// A saved copy as it exists on machines in the field; every later version must load it.
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

    ASSERT_TRUE(save().isOk());
    auto expected = filesOf(m_golden);
    EXPECT_EQ(expected.erase("swvariant") + expected.erase("partno"), 2U);
    EXPECT_EQ(filesOf(m_saved), expected);
}

/// Values that JSON cannot represent, in the form in which they are saved since that form exists.
TEST_F(GoldenSavedCopy, WithValuesInBytesIsLoadedAndSavedAgainByteForByte) {
    const fs::path golden = HALVO_GOLDEN_SAVED_BYTES;
    fs::copy(golden, m_saved, fs::copy_options::recursive);
    start();
    EXPECT_THAT(content(),
                ElementsAre("/sys/conf/mb/0/vendor/__csid", "/sys/conf/mb/0/vendor/list",
                            "/sys/conf/mb/0/vendor/text", "/sys/conf/mb/0/vendor/unknown"));
    Api::ReadCapConfReq request;
    *request.mutable_confid() = Update("vendor").request.confid();
    const auto read = m_tree->callApiOp<UnaryOps::READ, Api::ReadCapConfReq, Api::ReadCapConfResp>(
        "/.rcc.", request);
    const auto& values = read.message->capconfchangeset().node_change_map();
    const auto& unknown = values.at("/sys/conf/mb/0/vendor/unknown").nodepairlist().at(0);
    EXPECT_EQ(unknown.currentmessage().type_url(), "type.googleapis.com/vendor.Unknown");
    EXPECT_EQ(unknown.currentmessage().value(), std::string("\x08\x2a\x00\xff", 4));
    ASSERT_TRUE(save().isOk());
    EXPECT_EQ(filesOf(m_saved), filesOf(golden));
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
