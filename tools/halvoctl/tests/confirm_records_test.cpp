#include "confirm_records.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Ctl {

namespace {

constexpr std::chrono::milliseconds noTime(0);

/// Surroundings whose records are in a folder of the test.
class ConfirmRecordsTest : public ::testing::Test {
protected:
    std::unique_ptr<ConfirmRecord> keptRecord(std::int64_t seconds, PendingKind kind = IMPORT) {
        auto record = ConfirmRecord::create(m_surroundings);
        Confirmation content;
        content.set_kind(kind);
        content.set_endpoint("head:5005");
        content.mutable_reverts_at()->set_seconds(seconds);
        record->keep(content);
        return record;
    }

    std::string errorOfOpening(const std::string& id, ExitCode code = ExitCode::Usage) {
        try {
            openPending(m_surroundings, id, noTime);
        } catch (const CtlError& error) {
            EXPECT_EQ(error.code(), code);
            return error.what();
        }
        return "";
    }

    Testing::TempDir m_folder;
    std::map<std::string, std::string> m_environment{{"XDG_STATE_HOME", m_folder / "state"}};
    std::istringstream m_in;
    std::ostringstream m_out;
    Interrupt m_interrupt;
    Surroundings m_surroundings{m_in,
                                m_out,
                                m_out,
                                m_interrupt,
                                makeChannel,
                                std::chrono::system_clock::now,
                                [this](const std::string& name) { return m_environment[name]; }};
};

TEST_F(ConfirmRecordsTest, ARecordCountsOnceItsContentIsKept) {
    EXPECT_TRUE(pendingConfirmations(m_surroundings).empty());
    auto record = ConfirmRecord::create(m_surroundings);
    record->keepFormerPackage("old");
    EXPECT_TRUE(pendingConfirmations(m_surroundings).empty());
    const auto folder = record->folder();
    record.reset();
    EXPECT_FALSE(std::filesystem::exists(folder));

    record = keptRecord(5);
    record->keepFormerPackage("old");
    record->keepNewPackage("new");
    const auto id = record->id();
    record.reset();
    const auto found = pendingConfirmations(m_surroundings);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].id, id);
    EXPECT_EQ(found[0].folder, (m_folder / "state/halvo/confirm" / id).string());
    EXPECT_EQ(found[0].content.endpoint(), "head:5005");
    record = openPending(m_surroundings, "", noTime);
    EXPECT_EQ(record->formerPackage() + record->newPackage(), "oldnew");
    record->remove();
    record.reset();
    EXPECT_FALSE(std::filesystem::exists(found[0].folder));
}

TEST_F(ConfirmRecordsTest, TheFirstToRevertIsListedFirst) {
    const auto late = keptRecord(9)->id();
    const auto early = keptRecord(3)->id();
    const auto all = pendingConfirmations(m_surroundings);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].id, early);
    EXPECT_EQ(all[1].id, late);
}

TEST_F(ConfirmRecordsTest, OnlyOneChangeOfAConfigurationNeedsNoId) {
    EXPECT_EQ(errorOfOpening(""), "nothing is pending");
    keptRecord(1, LOG);
    EXPECT_EQ(errorOfOpening(""), "nothing is pending");
    const auto id = keptRecord(2, GUARD)->id();
    EXPECT_EQ(openPending(m_surroundings, "", noTime)->id(), id);
    keptRecord(3);
    EXPECT_EQ(errorOfOpening("").substr(0, 28), "several changes are pending:");
    EXPECT_EQ(errorOfOpening("../confirm"), "no change \"../confirm\" is pending");
}

TEST_F(ConfirmRecordsTest, NobodyElseWorksOnAnOpenRecord) {
    const auto record = keptRecord(1);
    const auto other = LinuxCppUtil::ownFileDescriptor(
        ::open(record->folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_NE(::flock(*other, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(errorOfOpening(record->id(), ExitCode::Unreachable),
              "another process works on the change " + record->id());
    m_interrupt.request();
    try {
        ConfirmRecord::open(m_surroundings, record->id(), std::chrono::hours(1));
        ADD_FAILURE() << "the lock is there twice";
    } catch (const CtlError& error) {
        EXPECT_EQ(error.code(), ExitCode::Interrupted);
    }
}

TEST_F(ConfirmRecordsTest, WhoHasARecordIsNeitherHungUpNorStopped) {
    {
        const auto record = keptRecord(1);
        EXPECT_EQ(std::signal(SIGHUP, SIG_IGN), SIG_IGN);
        EXPECT_EQ(std::signal(SIGTSTP, SIG_IGN), SIG_IGN);
    }
    EXPECT_EQ(std::signal(SIGHUP, SIG_DFL), SIG_DFL);
    EXPECT_EQ(std::signal(SIGTSTP, SIG_DFL), SIG_DFL);
}

TEST_F(ConfirmRecordsTest, RemainsWithoutContentAreRemovedUnlessSomebodyWorksThere) {
    const auto kept = keptRecord(1)->id();
    const auto working = ConfirmRecord::create(m_surroundings);
    const auto root = std::filesystem::path(working->folder()).parent_path();
    std::filesystem::create_directory(root / "dead");
    std::ofstream(root / "dead/old.hpk") << "secret";
    const auto fresh = ConfirmRecord::create(m_surroundings);
    EXPECT_FALSE(std::filesystem::exists(root / "dead"));
    EXPECT_TRUE(std::filesystem::exists(root / kept / "record.json"));
    EXPECT_TRUE(std::filesystem::exists(working->folder()));
    EXPECT_TRUE(std::filesystem::exists(fresh->folder()));
}

TEST_F(ConfirmRecordsTest, ADamagedRecordIsNamed) {
    auto record = keptRecord(1);
    const auto path = record->folder() + "/record.json";
    record.reset();
    std::ofstream(path) << "{";
    EXPECT_EQ(errorOfOpening(""), path + " cannot be read");
}

TEST_F(ConfirmRecordsTest, ThePlaceMustNotDependOnTheWorkingFolder) {
    for (const auto* const relative : {"state", "./state", "~/state"}) {
        m_environment = {{"XDG_STATE_HOME", relative}};
        try {
            ConfirmRecord::create(m_surroundings);
            ADD_FAILURE() << relative << " is accepted";
        } catch (const CtlError& error) {
            EXPECT_EQ(error.code(), ExitCode::Usage);
            EXPECT_STREQ(error.what(), "XDG_STATE_HOME is no absolute path");
        }
    }
}

TEST_F(ConfirmRecordsTest, ThePlaceDependsOnTheUser) {
    EXPECT_EQ(confirmFolder(m_surroundings), (m_folder / "state/halvo/confirm").string());
    EXPECT_EQ(stateHome(m_surroundings), (m_folder / "state").string());
    m_environment.clear();
    if (::geteuid() == 0) {
        EXPECT_EQ(confirmFolder(m_surroundings), "/var/lib/halvo-tools/confirm");
        EXPECT_EQ(stateHome(m_surroundings), "");
    } else {
        EXPECT_THROW(confirmFolder(m_surroundings), CtlError);
        m_environment["HOME"] = "/home/me";
        EXPECT_EQ(confirmFolder(m_surroundings), "/home/me/.local/state/halvo/confirm");
        EXPECT_EQ(stateHome(m_surroundings), "/home/me/.local/state");
        m_environment["HOME"] = "me";
        EXPECT_THROW(confirmFolder(m_surroundings), CtlError);
    }
}

}  // namespace

}  // namespace Hox::Ctl
