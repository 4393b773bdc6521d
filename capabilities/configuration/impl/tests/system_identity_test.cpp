#include "system_identity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "hox/cpputil/error/file_system_error.h"
#include "hox/testing/temp_dir.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {
namespace {

using Hox::SystemAPI::HeadendSWVariant;
using ::testing::HasSubstr;

class PackageIdentity : public ::testing::Test {
protected:
    void write(const char* name, const std::string& text) { std::ofstream(m_dir / name) << text; }
    std::string read(const char* name) {
        std::ifstream file(m_dir / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void expect(HeadendSWVariant variant, std::uint32_t partNumber) {
        const auto identity = readPackageIdentity(m_dir.path());
        EXPECT_EQ(describeIdentity(identity), describeIdentity({variant, partNumber}));
    }

    Hox::Testing::TempDir m_dir;
};

TEST_F(PackageIdentity, IsReadFromItsTwoFiles) {
    expect(HeadendSWVariant::QAM, 0);
    write("swvariant", "output:COFDM\n");
    expect(HeadendSWVariant::COFDM, 0);
    write("partno", "100007\nignored\n");
    expect(HeadendSWVariant::COFDM, 100007);
    write("partno", "");
    expect(HeadendSWVariant::COFDM, 0);
    write("swvariant", "output:XYZ\n");
    expect(HeadendSWVariant::UNKNOWN, 0);
}

TEST_F(PackageIdentity, NeedsANumberInItsPartNumberFile) {
    for (const char* text : {"\n", "none\n", "99999999999\n"}) {
        write("partno", text);
        EXPECT_THROW(readPackageIdentity(m_dir.path()), std::logic_error) << text;
    }
}

TEST_F(PackageIdentity, NeverWaitsForAPipe) {
    ASSERT_EQ(mkfifo((m_dir / "swvariant").c_str(), 0600), 0);
    ASSERT_EQ(mkfifo((m_dir / "partno").c_str(), 0600), 0);
    expect(HeadendSWVariant::QAM, 0);
}

TEST_F(PackageIdentity, IsWrittenAsItIsRead) {
    writePackageIdentity({HeadendSWVariant::COFDM, 100001}, m_dir.path());
    EXPECT_EQ(read("swvariant"), "output:COFDM\n");
    EXPECT_EQ(read("partno"), "100001\n");
    expect(HeadendSWVariant::COFDM, 100001);
}

TEST_F(PackageIdentity, SaysWhenThePartNumberCannotBeWritten) {
    fs::create_directory(m_dir / "partno");
    try {
        writePackageIdentity({}, m_dir.path());
        FAIL();
    } catch (const Hox::CppUtil::FileSystemError& error) {
        EXPECT_THAT(error.what(), HasSubstr("Unable to write partno file"));
    }
}

TEST_F(PackageIdentity, IsWrittenInPlaceOfPipes) {
    for (const char* name : {"swvariant", "swvariant.new", "partno"}) {
        ASSERT_EQ(mkfifo((m_dir / name).c_str(), 0600), 0);
    }
    writePackageIdentity({HeadendSWVariant::COFDM, 100001}, m_dir.path());
    EXPECT_EQ(read("swvariant"), "output:COFDM\n");
    EXPECT_EQ(read("partno"), "100001\n");
    EXPECT_FALSE(fs::exists(m_dir / "swvariant.new"));
}

/// Nothing is written to the targets of links in a package.
TEST_F(PackageIdentity, IsWrittenInPlaceOfLinks) {
    const auto place = [this](const char* name, bool isHard) {
        fs::remove(m_dir / name);
        if (isHard) {
            fs::create_hard_link(m_dir / "precious", m_dir / name);
        } else {
            fs::create_symlink("precious", m_dir / name);
        }
    };
    write("precious", "content");
    for (const bool isHard : {false, true}) {
        for (const char* name : {"swvariant", "swvariant.new", "partno"}) {
            place(name, isHard);
        }
        writePackageIdentity({HeadendSWVariant::COFDM, 100001}, m_dir.path());
        EXPECT_EQ(read("precious"), "content");
        for (const char* name : {"swvariant", "partno"}) {
            EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(m_dir / name))) << name;
        }
        EXPECT_EQ(read("swvariant"), "output:COFDM\n");
        EXPECT_EQ(read("partno"), "100001\n");
    }
}

TEST_F(PackageIdentity, ThatCannotBeReadIsToldOnReading) {
    for (const char* name : {"swvariant", "partno"}) {
        fs::create_directory(m_dir / name);
        try {
            readPackageIdentity(m_dir.path());
            FAIL();
        } catch (const fs::filesystem_error& error) {
            EXPECT_EQ(error.path1(), m_dir / name);
        }
        fs::remove(m_dir / name);
    }
}

TEST_F(PackageIdentity, IsForOwnerAndGroupAlone) {
    for (const mode_t mask : {0U, 0077U}) {
        const mode_t former = ::umask(mask);
        writePackageIdentity({HeadendSWVariant::COFDM, 100001}, m_dir.path());
        ::umask(former);
        for (const char* name : {"swvariant", "partno"}) {
            EXPECT_EQ(fs::status(m_dir / name).permissions(), fs::perms(0640)) << name;
        }
    }
}

TEST(SystemIdentity, IsDescribedForTheLog) {
    EXPECT_EQ(describeIdentity({}), "output: QAM partNo:0");
    EXPECT_EQ(describeIdentity({HeadendSWVariant::COFDM, 5}), "output: COFDM partNo:5");
    EXPECT_EQ(describeIdentity({HeadendSWVariant::UNKNOWN, 100001}),
              "output: UNKNOWN partNo:100001");
    EXPECT_EQ(describeIdentity({static_cast<HeadendSWVariant>(7), 1}), "output: UNKNOWN partNo:1");
}

}  // namespace
}  // namespace Hox::Capability::Configuration
