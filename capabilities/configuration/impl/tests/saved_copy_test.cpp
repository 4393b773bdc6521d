#include "saved_copy.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hox/cpputil/error/initialization_error.h"
#include "hox/observer_tree/path_error.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/temp_dir.h"
#include "saved_files.h"
#include "state_id.h"
#include "system_identity.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {
namespace {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::Testing::LogCapture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::set<std::string> entriesOf(const fs::path& dir) {
    std::set<std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        entries.insert(entry.path().lexically_relative(dir).string());
    }
    return entries;
}

std::vector<std::string> keysOf(const ChangeSetType& content) {
    std::vector<std::string> keys;
    for (const auto& change : content) {
        keys.push_back(change.first);
    }
    return keys;
}

std::string textOf(const ChangeSetType& content, const std::string& key) {
    return content.at(key).at(0).current->get<google::protobuf::StringValue>().value();
}

/// The parent folder of a saved copy, without tree and frame.
class SavedCopyFolder : public ::testing::Test {
protected:
    SavedCopyFolder() { fs::create_directories(m_saved); }

    /// A folder to be packed, with the identity of this machine.
    fs::path source() const {
        const fs::path dir = m_dir / "source";
        fs::remove_all(dir);
        fs::create_directory(dir);
        writePackageIdentity(readSystemIdentity(), dir);
        return dir;
    }

    const LogCapture m_log;
    Hox::Testing::TempDir m_dir;
    const fs::path m_saved = m_dir / "conf";
    const fs::path m_scratch = m_dir / "conf.temp";
};

TEST_F(SavedCopyFolder, IsForOneServiceAtATime) {
    auto first = std::make_unique<SavedCopy>(m_saved);
    try {
        const SavedCopy second(m_saved);
        FAIL() << "two at once";
    } catch (const Hox::CppUtil::InitializationError& error) {
        EXPECT_THAT(error.what(), HasSubstr("Another service uses the configuration folder " +
                                            m_dir.path().string()));
    }
    first->putInForce(first->makeScratch());
    EXPECT_THROW(SavedCopy{m_saved}, Hox::CppUtil::InitializationError) << "it changed places";
    first.reset();
    EXPECT_NO_THROW(SavedCopy{m_saved});
}

TEST_F(SavedCopyFolder, IsNotKeptByChildrenOfItsService) {
    const SavedCopy copy(m_saved);
    int locks = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (fs::read_symlink(entry.path(), ignored) == m_dir.path()) {
            ++locks;
            EXPECT_EQ(::fcntl(std::stoi(entry.path().filename()), F_GETFD), FD_CLOEXEC);
        }
    }
    EXPECT_EQ(locks, 1);
}

TEST_F(SavedCopyFolder, MayBeInAFolderThatIsStillToBeMade) {
    const fs::path deep = m_dir / "a/b/conf";
    const SavedCopy copy(deep);
    EXPECT_TRUE(fs::is_directory(m_dir / "a/b"));
    EXPECT_FALSE(fs::exists(deep));
    EXPECT_EQ(copy.folder(), deep);
}

TEST_F(SavedCopyFolder, HasAScratchFolderThatGoesWithItsObject) {
    const SavedCopy copy(m_saved);
    write(m_scratch / "left/over", "from a crash");
    {
        const auto scratch = copy.makeScratch();
        EXPECT_EQ(scratch->path(), m_scratch);
        EXPECT_THAT(entriesOf(m_scratch), IsEmpty());
        EXPECT_EQ(fs::status(m_scratch).permissions(), fs::perms(0750));
        write(m_scratch / "sys/conf/a/data", "x");
        EXPECT_NO_THROW(scratch->flush());
    }
    EXPECT_FALSE(fs::exists(m_scratch));
}

TEST_F(SavedCopyFolder, TellsThatNoScratchFolderCanBeMade) {
    const SavedCopy copy(m_saved);
    fs::create_symlink("/proc/no/such/place", m_scratch);
    EXPECT_TRUE(copy.makeScratch()) << "a link is removed";
    const SavedCopy elsewhere("/proc/self/conf");
    try {
        elsewhere.makeScratch();
        FAIL() << "nothing thrown";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.path1(), "/proc/self/conf.temp");
        EXPECT_THAT(error.what(), HasSubstr("No such file or directory"));
    }
}

TEST_F(SavedCopyFolder, IsReplacedAsAWhole) {
    const SavedCopy copy(m_saved);
    write(m_saved / "old", "1");
    auto scratch = copy.makeScratch();
    write(m_scratch / "new", "2");
    copy.putInForce(std::move(scratch));
    EXPECT_THAT(entriesOf(m_saved), ElementsAre("new"));
    EXPECT_FALSE(fs::exists(m_scratch));
    EXPECT_THAT(m_log.textsAt(spdlog::level::warn), IsEmpty());
}

TEST_F(SavedCopyFolder, TakesAPackageApartForItsOwnerAndGroupAlone) {
    const SavedCopy copy(m_saved);
    const fs::path dir = source();
    write(dir / "sys/conf/mb/0/tuner/a/data", asJson("1"));
    fs::permissions(dir / "sys/conf/mb", fs::perms::all);
    fs::permissions(dir / "sys/conf/mb/0/tuner/a/data", fs::perms::all);
    fs::create_directories(dir / "empty");
    const auto scratch = copy.makeScratch();
    const mode_t former = ::umask(0);
    const Status unpacked = copy.unpack(pack(dir), *scratch);
    ::umask(former);
    ASSERT_TRUE(unpacked.isOk()) << unpacked.errorMessage();
    EXPECT_EQ(entriesOf(m_scratch), entriesOf(dir));
    EXPECT_EQ(read(m_scratch / "sys/conf/mb/0/tuner/a/data"), asJson("1"));
    for (const auto& entry : fs::recursive_directory_iterator(m_scratch)) {
        EXPECT_EQ(entry.status().permissions(), fs::perms(entry.is_directory() ? 0750 : 0640))
            << entry.path();
    }
    ChangeSetType content;
    const Status examined = copy.examine(*scratch, content);
    EXPECT_TRUE(examined.isOk()) << examined.errorMessage();
    EXPECT_THAT(keysOf(content), ElementsAre("/sys/conf/mb/0/tuner/a"));
}

TEST_F(SavedCopyFolder, UnpacksNothingOfAPackageThatIsNotToBeTrusted) {
    const SavedCopy copy(m_saved);
    const fs::path dir = source();
    const auto expectRefusal = [&](const std::string& package, const std::string& reason) {
        const auto scratch = copy.makeScratch();
        const Status status = copy.unpack(package, *scratch);
        EXPECT_EQ(status.statusCode(), ProtoStatus::INTERNAL) << reason;
        EXPECT_THAT(
            status.errorMessage(),
            StartsWith("Unable to unpack to filesystem - Error Archiving error: " + reason));
        EXPECT_THAT(entriesOf(m_scratch), IsEmpty()) << reason;
        EXPECT_EQ(m_log.textsAt(spdlog::level::err).back(), status.errorMessage());
    };
    expectRefusal("", "No byte at all");
    expectRefusal("garbage", "");
    fs::create_symlink("/etc", dir / "z");
    expectRefusal(pack(dir), "Entry that is neither file nor folder: z");
    fs::remove(dir / "z");
    ASSERT_EQ(::mkfifo((dir / "z").c_str(), 0600), 0);
    expectRefusal(pack(dir), "Entry that is neither file nor folder: z");
    fs::remove(dir / "z");
    write(dir / "z", std::string(8U << 20U, '\0'));
    expectRefusal(pack(dir), "More bytes than an archive may have");
    fs::remove(dir / "z");
    write(dir / "\xff", "1");
    expectRefusal(pack(dir), "Entry with a name that is no UTF-8");
}

/// A value is one level deeper than its key.
TEST_F(SavedCopyFolder, TakesEntriesAsDeepAsAKeyMayBe) {
    const SavedCopy copy(m_saved);
    std::string folders;
    for (int level = 0; level < 128; ++level) {
        folders += "a/";
    }
    struct Case {
        std::string file;
        bool isTaken;
    };
    for (const auto& [file, isTaken] :
         {Case{folders.substr(2) + "file", true}, Case{folders + "data", true},
          Case{folders + "file", false}, Case{folders + "a/data", false}}) {
        const fs::path dir = source();
        write(dir / file, "{}");
        const auto scratch = copy.makeScratch();
        const Status status = copy.unpack(pack(dir), *scratch);
        EXPECT_EQ(status.isOk(), isTaken) << file << status.errorMessage();
        EXPECT_TRUE(isTaken ||
                    status.errorMessage().find("too many components") != std::string::npos)
            << status.errorMessage();
    }
}

TEST_F(SavedCopyFolder, ReadsAllOrNothing) {
    const SavedCopy copy(m_saved);
    write(m_saved / "sys/conf/mb/0/tuner/a/data", asJson("1"));
    write(m_saved / "elsewhere/data", asJson("2"));
    EXPECT_THAT(keysOf(copy.read()), ElementsAre("/elsewhere", "/sys/conf/mb/0/tuner/a"));
    fs::create_directory(m_saved / "sys/conf/b");
    fs::create_symlink("data", m_saved / "sys/conf/b/data");  // to itself
    EXPECT_THROW(copy.read(), fs::filesystem_error);
    fs::remove_all(m_saved / "sys/conf/b");
    fs::create_directories(m_saved / "sys/conf/mb/0/tuner");
    write(m_saved / "sys/conf/mb/0/tuner/a*/data", asJson("3"));
    EXPECT_THROW(copy.read(), Hox::ObserverTree::PathError);
}

TEST_F(SavedCopyFolder, GivesASliceWhoseStateIdCannotBeReadAFreshOne) {
    const SavedCopy copy(m_saved);
    const std::string good = R"({\"@type\":\"type.googleapis.com/google.protobuf.StringValue\",)"
                             R"(\"value\":\"17\"})";
    write(m_saved / "sys/conf/mb/0/good/__csid/data", asJson(good));
    write(m_saved / "sys/conf/mb/0/good/a/__csid/data", "no state id at all");
    write(m_saved / "__csid/data", "neither");
    std::vector<std::string> warnings;
    for (const std::string& broken : {std::string(), std::string("broken"), asJson("17")}) {
        write(m_saved / "sys/conf/mb/0/bad/__csid/data", broken);
        const std::string before = newStateId();
        const LogCapture log;
        const auto content = copy.read();
        EXPECT_EQ(textOf(content, "/sys/conf/mb/0/good/__csid"),
                  R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":"17"})");
        const auto& fresh = *content.at("/sys/conf/mb/0/bad/__csid").at(0).current;
        EXPECT_TRUE(isStateId(fresh)) << broken;
        EXPECT_FALSE(holdsStateId(fresh, "17"));
        EXPECT_THAT(log.textsAt(spdlog::level::warn),
                    ::testing::Contains("The saved state id of /sys/conf/mb/0/bad cannot be read, "
                                        "the slice gets a fresh one"));
        EXPECT_EQ(read(m_saved / "sys/conf/mb/0/bad/__csid/data"), broken) << "only in memory";
    }
}

TEST_F(SavedCopyFolder, WarnsOfKeysThatNoPackageMayHold) {
    const SavedCopy copy(m_saved);
    write(m_saved / "sys/conf/mb/0/tuner/data/data", asJson("1"));
    write(m_saved / "sys/conf/mb/0/tuner/good/data", asJson("2"));
    write(m_saved / "sys/conf/short/data", asJson("3"));
    write(m_saved / "elsewhere/data/data", asJson("4"));
    const LogCapture log;
    EXPECT_EQ(copy.read().size(), 4U);
    EXPECT_THAT(
        log.textsAt(spdlog::level::warn),
        ElementsAre("Loading a value that no package may hold. Key has the reserved component "
                    "data: /sys/conf/mb/0/tuner/data",
                    "Loading a value that no package may hold. Key is in no slice: "
                    "/sys/conf/short"));
}

TEST_F(SavedCopyFolder, IsPackedWithTheIdentityOfTheMachine) {
    const SavedCopy copy(m_saved);
    write(m_saved / "sys/conf/mb/0/tuner/a/data", asJson("1"));
    const std::string package = copy.pack();
    EXPECT_EQ(read(m_saved / "partno"), std::to_string(readSystemIdentity().partNumber) + "\n");
    const auto scratch = copy.makeScratch();
    ASSERT_TRUE(copy.unpack(package, *scratch).isOk());
    EXPECT_EQ(entriesOf(m_scratch), entriesOf(m_saved));
    fs::create_symlink("nowhere", m_saved / "sys/link");
    ASSERT_EQ(::symlink("loop", (m_saved / "loop").c_str()), 0);
    EXPECT_NO_THROW(copy.pack()) << "links are packed as links";
    fs::remove_all(m_saved);
    EXPECT_THROW(copy.pack(), std::exception);
}

}  // namespace
}  // namespace Hox::Capability::Configuration
