#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "configuration_store.h"
#include "hox/archive/archive.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/private_mounts.h"
#include "hox/testing/skip_outside_ci.h"
#include "saved_files.h"
#include "system_identity.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {
namespace {

using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::Testing::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

/// The records that are logged at the default levels.
std::vector<std::string> toldOperator(const LogCapture& log) {
    std::vector<std::string> texts;
    for (const auto& record : log.records()) {
        if (record.level >= spdlog::level::info) {
            texts.push_back(record.text);
        }
    }
    return texts;
}

/// Runs the action with empty /etc and /tmp; false if the machine does not allow it.
bool onOwnMachine(const std::function<void()>& action) {
    bool isOwn = false;
    std::thread([&] {
        isOwn = Hox::Testing::mountPrivateFolders({"/etc", "/tmp"});
        if (isOwn) {
            action();
        }
    }).join();
    return isOwn;
}

class SavedConfiguration : public ConfigurationStore {
protected:
    /// As in the program: names in packages are in UTF-8.
    static void SetUpTestSuite() { std::setlocale(LC_CTYPE, "C.UTF-8"); }

    std::string packageOfAnotherMachine() const {
        const fs::path foreign = m_dir / "foreign";
        write(foreign / "swvariant", "output:COFDM\n");
        write(foreign / "partno", "100013\n");
        write(foreign / "sys/conf/mb/0/tuner/f/data", asJson("foreign"));
        return pack(foreign);
    }

    const fs::path m_saved = m_dir / "conf";
    const fs::path m_scratch = m_dir / "conf.temp";
};

TEST_F(SavedConfiguration, KeepsTheWorkingCopyInPlaceOfTheOldOne) {
    const auto id = update(Update("tuner").set("/a", "1").set("/b/c", "2"));
    EXPECT_THAT(filesOf(m_saved), IsEmpty()) << "nothing is written when a slice changes";
    write(m_scratch / "left/over", "from a crash");
    LogCapture log;
    ASSERT_TRUE(save().isOk());
    EXPECT_THAT(filesOf(m_saved),
                ElementsAre("sys/conf/mb/0/tuner/__csid/data", "sys/conf/mb/0/tuner/a/data",
                            "sys/conf/mb/0/tuner/b/c/data"));
    EXPECT_EQ(read(m_saved / "sys/conf/mb/0/tuner/a/data"), asJson("1"));
    EXPECT_FALSE(fs::exists(m_scratch));
    EXPECT_THAT(log.textsAt(spdlog::level::info), ElementsAre("Saving changes"));

    update(Update("tuner", id).set("/d", "4").remove("/a"));
    ASSERT_TRUE(save().isOk());
    EXPECT_THAT(filesOf(m_saved),
                ElementsAre("sys/conf/mb/0/tuner/__csid/data", "sys/conf/mb/0/tuner/b/c/data",
                            "sys/conf/mb/0/tuner/d/data"));
    const auto before = content();
    start();
    EXPECT_EQ(content(), before);
}

TEST_F(SavedConfiguration, IsRebuiltBySavingTwice) {
    update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    write(m_saved / "stray", "x");
    ASSERT_TRUE(save().isOk());
    EXPECT_THAT(filesOf(m_saved),
                ElementsAre("sys/conf/mb/0/tuner/__csid/data", "sys/conf/mb/0/tuner/a/data"));
}

TEST_F(SavedConfiguration, IsNotWrittenToAfterSaving) {
    const auto id = update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    update(Update("tuner", id).set("/b", "2"));
    EXPECT_FALSE(fs::exists(m_scratch));
    EXPECT_THAT(filesOf(m_saved),
                ElementsAre("sys/conf/mb/0/tuner/__csid/data", "sys/conf/mb/0/tuner/a/data"));
}

TEST_F(SavedConfiguration, SavingTellsNoObserver) {
    std::vector<std::string> told;
    const auto handle = observe("tuner", "", told);
    update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    EXPECT_THAT(told, ElementsAre("0"));
}

TEST_F(SavedConfiguration, DiscardBringsItBackAndTellsEveryKeyOfEachObservedSlice) {
    const auto id = update(Update("tuner").set("/a", "1").set("/b", "2"));
    update(Update("other").set("/x", "9"));
    ASSERT_TRUE(save().isOk());
    const auto saved = content();
    std::vector<std::string> tuner;
    std::vector<std::string> other;
    std::vector<std::string> empty;
    const auto first = observe("tuner", id, tuner);
    const auto second = observe("other", "", other);
    const auto third = observe("third", "", empty);
    const auto newId = update(Update("tuner", id).set("/a", "changed").set("/new", "3"));
    LogCapture log;
    ASSERT_TRUE(discard().isOk());
    EXPECT_EQ(content(), saved);
    EXPECT_THAT(tuner, ElementsAre("6", "0 /__csid /a=1 /b=2 /new=gone"));
    EXPECT_THAT(other, ElementsAre("0 /__csid /x=9", "0 /__csid /x=9"));
    EXPECT_THAT(empty, ElementsAre("0"));
    EXPECT_THAT(log.textsAt(spdlog::level::info), ElementsAre("Discarding unsaved changes"));

    ASSERT_TRUE(discard().isOk());
    EXPECT_EQ(tuner.size(), 3U) << "again every key, although nothing differs";
    EXPECT_EQ(tryUpdate(Update("tuner", newId)).statusCode(), ProtoStatus::FAILED_PRECONDITION);
    update(Update("tuner", id).set("/a", "4"));
    EXPECT_EQ(tuner.size(), 3U) << "nobody hears of an update";
    EXPECT_EQ(other.size(), 3U);
}

TEST_F(SavedConfiguration, HasTheStateIdOfItsTime) {
    const auto id = update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    start();
    EXPECT_EQ(tryUpdate(Update("tuner", "stale")).statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_TRUE(tryUpdate(Update("tuner", id)).isOk());
}

TEST_F(SavedConfiguration, ClearingWipesBothCopiesAndTheProgrammeGuide) {
    const auto id = update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    write(m_dir / "epg/guide/today", "news");
    std::vector<std::string> told;
    const auto handle = observe("tuner", id, told);
    LogCapture log;
    ASSERT_TRUE(clear().isOk());
    EXPECT_THAT(content(), IsEmpty());
    EXPECT_THAT(filesOf(m_saved), IsEmpty());
    EXPECT_TRUE(fs::is_directory(m_saved));
    EXPECT_FALSE(fs::exists(m_scratch));
    EXPECT_FALSE(fs::exists(m_dir / "epg"));
    EXPECT_THAT(told, ElementsAre("6", "0 /__csid /a=gone"));
    EXPECT_THAT(log.textsAt(spdlog::level::info),
                ElementsAre("Clear Sys conf data", "Discarding unsaved changes",
                            "Clear EPG data - path: " + (m_dir / "epg").string()));
    EXPECT_THAT(log.textsAt(spdlog::level::warn), IsEmpty());
}

TEST_F(SavedConfiguration, ClearingWarnsOfAMissingProgrammeGuide) {
    LogCapture log;
    ASSERT_TRUE(clear().isOk());
    EXPECT_THAT(log.textsAt(spdlog::level::warn),
                ElementsAre("Failed to clear EPG data - Success"));
}

TEST_F(SavedConfiguration, RefusesAnUpdateOfNoKind) {
    for (const auto& request : {Api::UpdateSysConfReq(), [] {
                                    Api::UpdateSysConfReq empty;
                                    empty.mutable_update_type();
                                    return empty;
                                }()}) {
        const Status status = call(request);
        EXPECT_EQ(status.statusCode(), ProtoStatus::INVALID_ARGUMENT);
        EXPECT_EQ(status.errorMessage(), "Update Type invalid");
    }
}

TEST_F(SavedConfiguration, TravelsAsAPackageWithTheIdentityOfTheMachine) {
    update(Update("tuner").set("/a", "1").set("/\xc3\xa4", "umlaut"));
    ASSERT_TRUE(save().isOk());
    update(Update("tuner", m_stateId).set("/unsaved", "x"));
    LogCapture log;
    std::string package;
    const Status status = exportPackage(package);
    ASSERT_TRUE(status.isOk()) << status.errorMessage();
    EXPECT_THAT(log.textsAt(spdlog::level::info), ElementsAre("Reading sys conf"));
    const fs::path unpacked = m_dir / "unpacked";
    fs::create_directory(unpacked);
    Hox::Archive::unpackBuffer({reinterpret_cast<std::uint8_t*>(package.data()), package.size()},
                               unpacked);
    EXPECT_THAT(filesOf(unpacked),
                ElementsAre("partno", "swvariant", "sys/conf/mb/0/tuner/__csid/data",
                            "sys/conf/mb/0/tuner/a/data", "sys/conf/mb/0/tuner/\xc3\xa4/data"));
    const auto system = readSystemIdentity();
    EXPECT_EQ(read(unpacked / "partno"), std::to_string(system.partNumber) + "\n");
    EXPECT_TRUE(readPackageIdentity(unpacked) == system);
    EXPECT_EQ(filesOf(m_saved), filesOf(unpacked)) << "the identity files stay";
}

TEST_F(SavedConfiguration, IsReplacedByAPackageAndObserversGetTheirWholeSlices) {
    const auto id = update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    std::string package;
    ASSERT_TRUE(exportPackage(package).isOk());
    const auto packaged = content();
    update(Update("tuner", id).full().set("/b", "2"));
    update(Update("late").set("/x", "3"));
    ASSERT_TRUE(save().isOk());
    std::vector<std::string> tuner;
    std::vector<std::string> late;
    const auto first = observe("tuner", id, tuner);
    const auto second = observe("late", m_stateId, late);
    LogCapture log;
    const Status status = importPackage(package);
    ASSERT_TRUE(status.isOk()) << status.errorMessage();
    EXPECT_EQ(content(), packaged);
    EXPECT_THAT(filesOf(m_saved),
                ElementsAre("partno", "swvariant", "sys/conf/mb/0/tuner/__csid/data",
                            "sys/conf/mb/0/tuner/a/data"));
    EXPECT_FALSE(fs::exists(m_scratch));
    ASSERT_EQ(tuner.size(), 2U);
    EXPECT_EQ(tuner[1], "0 /__csid /a=1 /b=gone");
    ASSERT_EQ(late.size(), 2U);
    EXPECT_EQ(late[1], "0 /__csid /x=gone");
    EXPECT_THAT(log.textsAt(spdlog::level::info),
                ElementsAre("Save Sys conf data", "Discarding unsaved changes"));
}

TEST_F(SavedConfiguration, RefusesWhatIsNoPackageAndChangesNothing) {
    update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    std::string package;
    ASSERT_TRUE(exportPackage(package).isOk());
    const auto files = filesOf(m_saved);
    const auto keys = content();
    for (const std::string& data :
         {std::string(), std::string("garbage"), std::string(3000000, 'x'),
          package.substr(0, package.size() / 2), package.substr(0, 20)}) {
        LogCapture log;
        const Status status = importPackage(data);
        EXPECT_EQ(status.statusCode(), ProtoStatus::INTERNAL) << data.size();
        EXPECT_THAT(status.errorMessage(),
                    StartsWith("Unable to unpack to filesystem - Error Archiving error: "));
        EXPECT_THAT(log.textsAt(spdlog::level::err), ElementsAre(status.errorMessage()));
        EXPECT_FALSE(fs::exists(m_scratch));
        EXPECT_EQ(filesOf(m_saved), files);
        EXPECT_EQ(content(), keys);
    }
}

TEST_F(SavedConfiguration, RefusesThePackageOfAnotherMachine) {
    update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    LogCapture log;
    const bool isOwn = onOwnMachine([this] {
        write("/etc/sw_variant", "output:QAM\n");
        const Status refused = importPackage(packageOfAnotherMachine());
        EXPECT_EQ(refused.statusCode(), ProtoStatus::INVALID_ARGUMENT);
        EXPECT_EQ(refused.errorMessage(),
                  "The configuration file is not compatible with this system");
    });
    if (!isOwn) {
        Hox::Testing::skipOutsideCi("this machine allows no private mounts");
        return;
    }
    EXPECT_THAT(log.textsAt(spdlog::level::info),
                ElementsAre("Save Sys conf data",
                            "Incompatible configuration files. System type output: QAM partNo:0 "
                            "configuration file type output: COFDM partNo:100013"));
    EXPECT_FALSE(fs::exists(m_scratch));
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/__csid", "/sys/conf/mb/0/tuner/a"));
}

TEST_F(SavedConfiguration, TakesThePackageOfAnotherMachineIfTheMarkerIsThere) {
    struct Case {
        std::function<void(const fs::path& marker)> make;
        bool isForced;
    };
    for (const auto& [make, isForced] :
         {Case{[](const fs::path& marker) { write(marker, ""); }, true},
          Case{[](const fs::path& marker) { fs::create_directory(marker); }, true},
          Case{[](const fs::path& marker) { fs::create_symlink("/etc", marker); }, true},
          Case{[](const fs::path& marker) { fs::create_symlink("nowhere", marker); }, false}}) {
        ASSERT_TRUE(clear().isOk());
        const bool isOwn = onOwnMachine([this, &make = make] {
            make("/tmp/headend_override_compat_check");
            importPackage(packageOfAnotherMachine());
        });
        if (!isOwn) {
            Hox::Testing::skipOutsideCi("this machine allows no private mounts");
            return;
        }
        EXPECT_EQ(content().size(), isForced ? 1U : 0U);
    }
}

/// A package that would end the process once it is in force is refused before, with the text that
/// the process would end with.
TEST_F(SavedConfiguration, RefusesAPackageThatCannotBeLoaded) {
    struct Case {
        const char* file;
        const char* text;
        const char* answer;
    };
    update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    const auto keys = content();
    const auto files = filesOf(m_saved);
    std::string longFile = "sys/conf/mb/0/tuner";
    while (longFile.size() < 3000) {
        longFile += "/" + std::string(99, 'x');
    }
    longFile += "/data";
    for (const auto& bad :
         {Case{"sys/conf/mb/0/tuner/a*/data", "{}", "PathError: "},
          Case{"sys/conf/mb/0/.x./data", "{}", "PathError: "},
          Case{"sys/conf/mb/0/tuner/a/data/data", "{}",
               "Invalid Argument Error: Key has the reserved component data: "
               "/sys/conf/mb/0/tuner/a/data("},
          Case{"sys/conf/mb/0/data~/a/data", "{}", "Invalid Argument Error: Key has the reserved"},
          Case{longFile.c_str(), "{}", "Invalid Argument Error: Key is longer than 3000 bytes: "},
          Case{"sys/conf////x/data", "{}",
               "Invalid Argument Error: Key is in no slice: /sys/conf/x("},
          Case{"sys/conf/mb/0/tuner/data", "{}",
               "Invalid Argument Error: Key is in no slice: /sys/conf/mb/0/tuner("},
          Case{"partno", "many\n", "stoi"}, Case{"partno", "99999999999\n", "stoi"}}) {
        const fs::path dir = m_dir / "bad";
        fs::remove_all(dir);
        writePackageIdentity(readSystemIdentity(), (fs::create_directory(dir), dir));
        write(dir / bad.file, bad.text);
        const Status status = importPackage(pack(dir));
        EXPECT_EQ(status.statusCode(), ProtoStatus::FAILED_PRECONDITION) << bad.file;
        EXPECT_THAT(status.errorMessage(), StartsWith(bad.answer)) << bad.file;
        EXPECT_FALSE(fs::exists(m_scratch));
        EXPECT_EQ(content(), keys);
        EXPECT_EQ(filesOf(m_saved), files);
    }
}

TEST_F(SavedConfiguration, MayHoldAStateIdOfTheWholeThatCannotBeRead) {
    const auto id = update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    for (const std::string broken :
         {"broken", "",
          R"({"@type":"type.googleapis.com/google.protobuf.Int32Value","value":7})"}) {
        write(m_saved / "__csid/data", broken);
        start();
        EXPECT_THAT(content(), ElementsAre("/__csid", "/sys/conf/mb/0/tuner/__csid",
                                           "/sys/conf/mb/0/tuner/a"));
        ASSERT_TRUE(discard().isOk());
        std::string package;
        ASSERT_TRUE(exportPackage(package).isOk());
        ASSERT_TRUE(clear().isOk());
        const Status status = importPackage(package);
        EXPECT_TRUE(status.isOk()) << status.errorMessage();
        EXPECT_THAT(content(), ElementsAre("/__csid", "/sys/conf/mb/0/tuner/__csid",
                                           "/sys/conf/mb/0/tuner/a"));
        EXPECT_EQ(read(m_saved / "__csid/data"), broken);
    }
    update(Update("tuner", id).set("/b", "2"));
}

TEST_F(SavedConfiguration, LoadsAPackageWithoutIdentityAsOneOfTheDefaultVariant) {
    const fs::path dir = m_dir / "plain";
    write(dir / "sys/conf/mb/0/tuner/p/data", asJson("plain"));
    write(dir / "elsewhere/data", asJson("ignored"));
    const Status status = importPackage(pack(dir));
    if (readSystemIdentity() == SystemIdentity()) {
        EXPECT_TRUE(status.isOk()) << status.errorMessage();
        EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/p"));
    } else {
        EXPECT_EQ(status.statusCode(), ProtoStatus::INVALID_ARGUMENT);
    }
}

TEST_F(SavedConfiguration, MakesAPackageUpToTheLimitAndNoneBeyondIt) {
    const fs::path big = m_saved / "sys/conf/mb/0/tuner/big/data";
    std::string package;
    ASSERT_TRUE(exportPackage(package).isOk());
    const auto identity = fs::file_size(m_saved / "swvariant") + fs::file_size(m_saved / "partno");
    const std::size_t folders = 6;  // from "sys" to "big"
    const std::size_t most = 524288 - 1536 - folders * 32 - identity;
    write(big, std::string(most, 'x'));
    ASSERT_TRUE(exportPackage(package).isOk());
    EXPECT_NE(package, "");
    write(big, std::string(most + 1, 'x'));
    LogCapture log;
    const Status status = exportPackage(package);
    EXPECT_EQ(status.statusCode(), ProtoStatus::INTERNAL);
    EXPECT_THAT(status.errorMessage(),
                StartsWith("Unable to pack from filesystem - Error Archiving error: the buffer is "
                           "exceeding bufMaxSize("));
    EXPECT_EQ(package, "");
    EXPECT_THAT(toldOperator(log), ElementsAre("Reading sys conf"));
    EXPECT_THAT(filesOf(m_saved),
                ElementsAre("partno", "swvariant", "sys/conf/mb/0/tuner/big/data"));
}

TEST_F(SavedConfiguration, MakesNoPackageWithoutIdentityFiles) {
    struct Case {
        const char* inTheWay;
        const char* text;
    };
    for (const auto& [inTheWay, text] : {Case{"swvariant.new", "Failed storing into \""},
                                         Case{"swvariant", "Failed renaming temp file errno 21("},
                                         Case{"partno", "Unable to write partno file("}}) {
        fs::create_directory(m_saved / inTheWay);
        LogCapture log;
        std::string package;
        const Status status = exportPackage(package);
        EXPECT_EQ(status.statusCode(), ProtoStatus::INTERNAL);
        EXPECT_THAT(status.errorMessage(),
                    StartsWith(std::string("Unable to pack from filesystem - Error IOErrorr: "
                                           "Generic filesystem Error: ") +
                               text));
        EXPECT_EQ(package, "");
        EXPECT_THAT(toldOperator(log), ElementsAre("Reading sys conf"));
        fs::remove(m_saved / inTheWay);
    }
}

TEST_F(SavedConfiguration, ThatIsEmptyMakesAPackageOfTheIdentityAlone) {
    ASSERT_TRUE(clear().isOk());
    std::string package;
    ASSERT_TRUE(exportPackage(package).isOk());
    EXPECT_THAT(filesOf(m_saved), ElementsAre("partno", "swvariant"));
    EXPECT_TRUE(importPackage(package).isOk());
    EXPECT_THAT(content(), IsEmpty());
}

using SavedConfigurationDeathTest = SavedConfiguration;

TEST_F(SavedConfigurationDeathTest, EndsTheProcessWhereTheCopiesCannotBeExchanged) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            fs::remove_all(m_saved);
            save();
        },
        "Assertion failed: \\[false\\].*atomic rename exchange failed with errno 2");
}

/// Only a change by hand can create such a key.
TEST_F(SavedConfigurationDeathTest, EndsTheProcessForASavedKeyInNoSlice) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    write(m_saved / "sys/conf/mb/0/tuner/data", asJson("no slash behind the slice's root"));
    EXPECT_DEATH(discard(), "Assertion failed: \\[iter != key.end\\(\\)\\]");
}

}  // namespace
}  // namespace Hox::Capability::Configuration
