#include "changed_slices.h"

#include <gtest/gtest.h>

#include <fstream>

#include "ctl_error.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Ctl {

namespace {

using Slices = std::set<std::string>;

Slices changedBy(const std::vector<std::string>& texts) {
    std::vector<std::string> lines;
    for (const auto& text : texts) {
        lines.push_back("[2026-11-21 10:15:02.123][info][conf_obstree_handler.cpp:120] " + text);
    }
    return changedSlices(lines);
}

const std::string change = "Updating system configuration for /sys/conf/mb/0/";

TEST(ChangedSlices, AreThoseSinceTheLastSave) {
    EXPECT_EQ(changedBy({change + "a", "Saving changes", change + "b", change + "c", change + "b"}),
              (Slices{"mb/0/b", "mb/0/c"}));
    EXPECT_EQ(changedBy({change + "a", "Saving changes"}), Slices());
    EXPECT_EQ(changedBy({}), Slices());
}

TEST(ChangedSlices, AFailedSaveSavesNothing) {
    EXPECT_EQ(changedBy({change + "a", "Saving changes", "Save failed - no space", change + "b"}),
              (Slices{"mb/0/a", "mb/0/b"}));
    EXPECT_EQ(changedBy({change + "a", "Saving changes", change + "b", "Saving changes",
                         "Save failed - no space"}),
              Slices{"mb/0/b"});
}

TEST(ChangedSlices, ARevertAndAStartEndAllChanges) {
    EXPECT_EQ(changedBy({change + "a", "Discarding unsaved changes"}), Slices());
    EXPECT_EQ(changedBy({change + "a", "halvo-system 1.0 is ready, pid 7, port 5005"}), Slices());
}

TEST(ChangedSlices, OtherRecordsAreLeftOut) {
    EXPECT_EQ(changedBy({change + "a", change + "b/x - value: \"Saving changes\"", "x " + change}),
              Slices{"mb/0/a"});
    EXPECT_EQ(changedSlices({"[10:15:02.123] [info] " + change + "a", "", "[", "[broken"}),
              Slices{"mb/0/a"});
}

TEST(ChangedSlices, TheLogBeforeTheRotationIsReadFirst) {
    const Testing::TempDir folder;
    std::ofstream(folder / "halvo.1.log") << "1\n2\n";
    EXPECT_THROW(linesOfLog(folder / "halvo.log"), CtlError);
    std::ofstream(folder / "halvo.log") << "3\n";
    EXPECT_EQ(linesOfLog(folder / "halvo.log"), (std::vector<std::string>{"1", "2", "3"}));
}

}  // namespace

}  // namespace Hox::Ctl
