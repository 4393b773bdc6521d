#include "machine_checks.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "finding_list.h"
#include "hox/configuration/package_rules.h"
#include "hox/testing/temp_dir.h"
#include "run_tool.h"
#include "size_check.h"

namespace fs = std::filesystem;

namespace Hox::Ctl {

namespace {

/// The files of a machine and its service below a folder.
class MachineChecksTest : public ::testing::Test {
protected:
    MachineChecksTest() {
        m_files.root = m_root.path();
        m_files.configFolder = "/config";
        m_files.logFolder = "/log";
        m_files.program = "/opt/halvo/bin/halvo-system";
        m_files.user = userOf(::geteuid());
        for (const auto* const folder : {"etc", "config", "log", "tmp"}) {
            fs::create_directory(m_root / folder);
        }
        fs::permissions(m_root.path(), fs::perms(0755));
    }

    void write(const std::string& name, const std::string& text) {
        fs::create_directories((m_root / name).parent_path());
        std::ofstream(m_root / name) << text;
    }

    MachineChecks checks() const { return MachineChecks(m_files); }

    /// Another user than that of the test, whom only root can become.
    void becomeNobody() { m_files.user = userNamed("nobody"); }

    Testing::TempDir m_root;
    ServiceFiles m_files;
};

std::string shown(const Check& check) {
    return check.result() + " " + check.name() + ": " + check.text();
}

TEST_F(MachineChecksTest, FoldersAreWritableByTheUser) {
    const auto user = m_files.user.name;
    EXPECT_EQ(shown(checks().configFolder()), "ok config-folder: /config is writable by " + user);
    EXPECT_EQ(shown(checks().logFolder()), "ok log-folder: /log is writable by " + user);
    fs::remove(m_root / "config");
    EXPECT_EQ(shown(checks().configFolder()),
              "ok config-folder: /config is missing, " + user + " can make it");
    m_files.logFolder.clear();
    EXPECT_EQ(shown(checks().logFolder()),
              "ok log-folder: not used: the service logs to its output");
}

TEST_F(MachineChecksTest, FoldersOfAnotherUserAreNot) {
    becomeNobody();
    if (::geteuid() != 0) {
        EXPECT_EQ(checks().configFolder().result(), "warn");
        return;
    }
    fs::permissions(m_root / "config", fs::perms(0750));
    EXPECT_EQ(shown(checks().configFolder()),
              "FAIL config-folder: /config is not writable by nobody");
    fs::permissions(m_root / "log", fs::perms(0777));
    EXPECT_EQ(checks().logFolder().result(), "ok");
    m_files.logFolder = "/log/deep/er";
    EXPECT_EQ(shown(checks().logFolder()),
              "ok log-folder: /log/deep/er is missing, nobody can make it");
}

TEST_F(MachineChecksTest, NamesAreExchangedInAScratchFolder) {
    EXPECT_EQ(shown(checks().exchange()), "ok exchange: names can be exchanged in /config");
    EXPECT_TRUE(fs::is_empty(m_root / "config"));
    m_files.configFolder = "/none";
    EXPECT_EQ(shown(checks().exchange()), "ok exchange: /none is not there yet");
    write("file", "");
    m_files.configFolder = "/file";
    EXPECT_EQ(shown(checks().exchange()),
              "FAIL exchange: no scratch folder can be made in /file: Not a directory");
}

TEST_F(MachineChecksTest, WhatOnlyRootSeesIsNotCalledGood) {
    write("config/configuration/a/data", "x");
    write("etc/sw_variant", "output:QAM\n");
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    becomeNobody();
    const auto nobody = m_files.user.uid;
    fs::permissions(m_root / "config/configuration", fs::perms(0700));
    ASSERT_EQ(::seteuid(nobody), 0);
    const auto budget = checks().budget();
    const auto exchange = checks().exchange();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(shown(budget), "warn package: /config/configuration cannot be read");
    EXPECT_EQ(shown(exchange),
              "warn exchange: no scratch folder can be made in /config: Permission denied");
    fs::permissions(m_root.path(), fs::perms(0700));
    ASSERT_EQ(::seteuid(nobody), 0);
    const auto all = {checks().configFolder(), checks().exchange(), checks().variant(),
                      checks().serial(),       checks().budget(),   checks().marker(),
                      checks().leftover(),     checks().mib()};
    ASSERT_EQ(::seteuid(0), 0);
    fs::permissions(m_root.path(), fs::perms(0755));
    for (const auto& check : all) {
        EXPECT_EQ(check.result(), "warn") << shown(check);
        EXPECT_NE(check.text().find("only root "), std::string::npos) << shown(check);
    }
}

TEST_F(MachineChecksTest, TheVariantIsKnown) {
    EXPECT_EQ(shown(checks().variant()),
              "ok variant: /etc/sw_variant is missing: the variant is QAM");
    write("etc/sw_variant", "output:COFDM\n");
    EXPECT_EQ(shown(checks().variant()),
              "ok variant: /etc/sw_variant is readable by " + m_files.user.name);
    write("etc/sw_variant", "output:XYZ\n");
    EXPECT_EQ(shown(checks().variant()),
              "FAIL variant: /etc/sw_variant has an unknown variant: every import fails");
}

TEST_F(MachineChecksTest, TheIdentityIsReadableByTheUser) {
    write("etc/sw_variant", "output:QAM\n");
    write("etc/serial", "[]");
    fs::permissions(m_root / "etc/sw_variant", fs::perms(0600));
    fs::permissions(m_root / "etc/serial", fs::perms(0600));
    becomeNobody();
    if (::geteuid() != 0) {
        EXPECT_EQ(checks().variant().result(), "warn");
        return;
    }
    EXPECT_EQ(shown(checks().variant()),
              "FAIL variant: /etc/sw_variant is not readable by nobody: every import fails");
    EXPECT_EQ(checks().serial().result(), "FAIL");
}

TEST_F(MachineChecksTest, TheModelIsThatOfTheSerialFile) {
    const auto serial = [this](const std::string& number) {
        write("etc/serial",
              R"([{"type":"0","serial":"1","partnumber":")" + number + R"(","revision":"1"}])");
    };
    EXPECT_EQ(shown(checks().serial()),
              "warn serial: /etc/serial is missing: the part number is 0");
    EXPECT_EQ(checks().model().result(), "warn");
    serial("100003");
    EXPECT_EQ(checks().serial().result(), "ok");
    EXPECT_EQ(shown(checks().model()), "ok model: Placeholder 3, QAM part 100003");
    serial("5");
    EXPECT_EQ(checks().serial().result(), "ok");
    EXPECT_EQ(shown(checks().model()),
              "warn model: the model of this machine is not known: its part number is 0");
    serial("100003x");
    EXPECT_EQ(checks().serial().result(), "FAIL");
    EXPECT_EQ(checks().model().result(), "FAIL");
}

TEST_F(MachineChecksTest, TheSavedConfigurationHasALimit) {
    EXPECT_EQ(shown(checks().budget()), "ok package: nothing is saved yet");
    write("config/configuration/a/data", std::string(1000, 'x'));
    EXPECT_EQ(shown(checks().budget()), "ok package: 2568 of 524288 bytes");
    write("config/configuration/a/data", std::string(524288 - 1536 - 32 + 1, 'x'));
    EXPECT_EQ(shown(checks().budget()),
              "FAIL package: 524289 of 524288 bytes: the configuration cannot be exported");
    EXPECT_EQ(sizeCheck(419430).result(), "ok");
    EXPECT_EQ(sizeCheck(419431).result(), "warn");
    EXPECT_EQ(sizeCheck(exportLimit).result(), "warn");
}

TEST_F(MachineChecksTest, WhatWasLeftOverIsFound) {
    EXPECT_EQ(checks().marker().result(), "ok");
    EXPECT_EQ(checks().leftover().result(), "ok");
    write(std::string(Hox::Capability::Configuration::overrideMarker).substr(1), "");
    write("config/configuration.temp/x", "");
    EXPECT_EQ(shown(checks().marker()),
              "warn marker: /tmp/headend_override_compat_check is there: packages of all machines "
              "are accepted");
    EXPECT_EQ(checks().leftover().result(), "warn");
}

TEST_F(MachineChecksTest, TheMibIsNeededForTraps) {
    EXPECT_EQ(shown(checks().mib()), "ok mib: no traps are sent");
    write("config/state_monitoring_uservice/snmp/data", "{}");
    EXPECT_EQ(shown(checks().mib()),
              "FAIL mib: HALVO-QHED-MIB.txt is missing: the first trap ends the service");
    write("opt/halvo/share/snmp/mibs/HALVO-QHED-MIB.txt", "");
    EXPECT_EQ(shown(checks().mib()), "ok mib: /opt/halvo/share/snmp/mibs/HALVO-QHED-MIB.txt");
    m_files.program.clear();
    write("usr/share/snmp/mibs/HALVO-QHED-MIB.txt", "");
    EXPECT_EQ(shown(checks().mib()), "ok mib: /usr/share/snmp/mibs/HALVO-QHED-MIB.txt");
}

TEST_F(MachineChecksTest, TheDoctorSendsNothingBeforeTheStart) {
    Tool tool;
    tool.environment["XDG_STATE_HOME"] = m_root.path();
    write("halvo/confirm/7f3a/record.json", "{}");
    const auto run = tool.run(
        {"doctor", "--before-start", "-e", "localhost:1", "--configdir", m_root / "config"});
    EXPECT_EQ(run.code, ExitCode::Done) << run.out;
    EXPECT_EQ(run.out.find("endpoint"), std::string::npos);
    EXPECT_EQ(run.out.substr(0, 28), "ok listeners: port 1 is free");
    EXPECT_NE(run.out.find("\nwarn confirmations: nothing reverts any more: 7f3a\n"),
              std::string::npos)
        << run.out;
    EXPECT_EQ(tool.run({"doctor", "--user", "no such user"}).code, ExitCode::Usage);
}

}  // namespace

}  // namespace Hox::Ctl
