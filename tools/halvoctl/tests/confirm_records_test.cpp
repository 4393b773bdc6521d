#include "confirm_records.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "hox/testing/temp_dir.h"

namespace Hox::Ctl {

namespace {

TEST(ConfirmRecords, AreTheFoldersOfChangesThatWait) {
    const Testing::TempDir state;
    const auto environment = [&state](const std::string& name) {
        return name == "XDG_STATE_HOME" ? state.path().string() : std::string();
    };
    EXPECT_TRUE(pendingConfirmations(environment).empty());
    for (const auto* const id : {"b2", "a1"}) {
        std::filesystem::create_directories(state / (std::string("halvo/confirm/") + id));
    }
    const auto pending = pendingConfirmations(environment);
    ASSERT_EQ(pending.size(), 2U);
    EXPECT_EQ(pending[0].id, "a1");
    EXPECT_EQ(pending[0].folder, (state / "halvo/confirm/a1").string());
    EXPECT_EQ(pending[1].id, "b2");
}

}  // namespace

}  // namespace Hox::Ctl
