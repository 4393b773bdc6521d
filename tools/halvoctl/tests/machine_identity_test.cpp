#include "machine_identity.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ctl_error.h"
#include "hox/configuration/package_rules.h"
#include "hox/testing/temp_dir.h"
#include "make_package.h"
#include "package_verdict.h"

namespace Hox::Ctl {

namespace {

using SystemAPI::HeadendSWVariant;

/// The files of a machine below a folder of its own.
class MachineIdentityTest : public ::testing::Test {
protected:
    MachineIdentityTest() { std::filesystem::create_directory(m_root / "etc"); }

    void write(const std::string& name, const std::string& text) {
        std::ofstream(m_root / ("etc/" + name)) << text;
    }

    std::string identity() { return identityText(identityOfMachine(m_root.path())); }

    Testing::TempDir m_root;
};

std::string serialOf(const std::string& partNumber) {
    return R"([{"type":"0","serial":"1","partnumber":")" + partNumber + R"(","revision":"1"}])";
}

TEST_F(MachineIdentityTest, IsReadFromTwoFiles) {
    EXPECT_EQ(identity(), "QAM part 0");
    write("sw_variant", "output:COFDM\n");
    write("serial", serialOf("100003"));
    EXPECT_EQ(identity(), "COFDM part 100003");
    write("sw_variant", "output:XYZ\n");
    write("serial", serialOf("4"));
    EXPECT_EQ(identity(), "UNKNOWN part 0");
    write("serial", "broken");
    EXPECT_EQ(identity(), "UNKNOWN part 0");
}

TEST_F(MachineIdentityTest, ASerialFileThatEndsTheServiceIsAnError) {
    write("serial", serialOf("100003x"));
    EXPECT_THROW(identity(), CtlError);
}

TEST(PackageVerdict, IsThatOfAServiceOnTheMachine) {
    const MachineIdentity machine{HeadendSWVariant::COFDM, 100003};
    const auto verdict = [&machine](const PackageFiles& files, bool isOverridden = false) {
        const auto result = verdictOf(makePackage(files), machine, isOverridden);
        return (result.is_accepted() ? "accepted: " : result.code() + ": ") + result.reason();
    };
    const std::pair<std::string, std::string> variant{"swvariant", "output:COFDM\n"};
    EXPECT_EQ(verdict({variant, {"partno", "100003\n"}}),
              "accepted: made for COFDM part 100003, like this machine");
    EXPECT_EQ(verdict({variant, {"partno", " 100003 or so\n"}}),
              "accepted: made for COFDM part 100003, like this machine");
    EXPECT_EQ(verdict({variant}),
              "INVALID_ARGUMENT: made for COFDM part 0; this machine is COFDM part 100003");
    EXPECT_EQ(verdict({}, true),
              "accepted: made for QAM part 0; this machine is COFDM part 100003, but "
              "/tmp/headend_override_compat_check is there");
    EXPECT_EQ(verdict({variant, {"partno", "none\n"}}, true),
              "FAILED_PRECONDITION: partno: the part number is not a number");
    EXPECT_EQ(verdict({variant, {"partno", "100003\n"}, {"sys/conf/a/data", "{}"}}),
              "FAILED_PRECONDITION: /sys/conf/a: a value outside of a slice");
    EXPECT_EQ(verdict({{"/partno", "100003\n"}}), "INTERNAL: /partno: absolute name");
    EXPECT_EQ(verdict({{"partno/", ""}}),
              "FAILED_PRECONDITION: partno: a folder where a file must be");
}

TEST(PackageVerdict, AnArchiveThatCannotBeReadIsRefused) {
    const auto verdict = verdictOf("", {HeadendSWVariant::QAM, 0}, true);
    EXPECT_FALSE(verdict.is_accepted());
    EXPECT_EQ(verdict.code() + ": " + verdict.reason(),
              "INTERNAL: the package cannot be read: No byte at all");
}

TEST(PackageVerdict, TheIdentityOfAnEndpointMayBeOneThatCannotBeRead) {
    const Package broken(makePackage({{"partno", "none\n"}}));
    EXPECT_FALSE(identityOf(broken));
    EXPECT_THROW(exporterOf(broken), CtlError);
    EXPECT_EQ(machinesText(identityOf(broken), {HeadendSWVariant::COFDM, 5}),
              "made for a machine that cannot be read; this machine is COFDM part 5");
}

TEST(PackageVerdict, AMachineOfUnknownVariantDoesNotAcceptItsOwnExports) {
    const auto archive = makePackage({{"swvariant", ""}, {"partno", "0\n"}});
    const Package exported(archive);
    EXPECT_EQ(identityText(exporterOf(exported)), "UNKNOWN part 0");
    EXPECT_FALSE(verdictOf(archive, exporterOf(exported), false).is_accepted());
    const auto other = makePackage({{"swvariant", "output:XYZ\n"}, {"partno", "0\n"}});
    EXPECT_TRUE(verdictOf(other, exporterOf(exported), false).is_accepted());
}

TEST(PackageVerdict, TheMarkerIsLookedForBelowTheRoot) {
    const Testing::TempDir root;
    EXPECT_FALSE(hasOverrideMarker(root.path()));
    std::filesystem::create_directory(root / "tmp");
    std::filesystem::create_directory(root.path().string() +
                                      Hox::Capability::Configuration::overrideMarker);
    EXPECT_TRUE(hasOverrideMarker(root.path()));
}

}  // namespace

}  // namespace Hox::Ctl
