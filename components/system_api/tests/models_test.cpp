#include "hox/system_api/models.h"

#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <set>
#include <string>

#include "hox/testing/log_capture.h"
#include "hox/testing/temp_dir.h"
#include "model_table.h"

namespace Hox::SystemAPI {
namespace {

class Models : public testing::Test {
protected:
    void write(const std::string& content) const { std::ofstream(m_file) << content; }

    std::optional<ModelInfo> modelOf(const std::string& content) const {
        write(content);
        return findModel(m_file);
    }

    static std::string record(int type, int partNumber) {
        return R"({"type":")" + std::to_string(type) + R"(","serial":"S","partnumber":")" +
               std::to_string(partNumber) + R"(","revision":"1"})";
    }

    void SetUp() override { ASSERT_FALSE(modelTable().empty()); }

    /// A part number that no model has.
    static int unknownPartNumber() {
        std::set<int> known;
        for (const auto& model : modelTable()) {
            known.insert(model.partNumber);
        }
        int number = std::numeric_limits<int>::max();
        while (known.count(number) != 0) {
            --number;
        }
        return number;
    }

    Testing::TempDir m_room;
    std::filesystem::path m_file = m_room / "serial";
    const ModelInfo& m_first = modelTable().front();
    const ModelInfo& m_last = modelTable().back();
};

using ModelsDeathTest = Models;

TEST_F(Models, EachRowIsFoundByItsPartNumber) {
    for (const auto& row : modelTable()) {
        const auto model = modelOf("[" + record(0, row.partNumber) + "]");
        ASSERT_TRUE(model) << row.name;
        EXPECT_EQ(model->name, row.name);
        EXPECT_EQ(model->partNumber, row.partNumber);
        EXPECT_EQ(model->moduleSlots, row.moduleSlots);
        EXPECT_EQ(model->rackUnits, row.rackUnits);
    }
}

TEST_F(Models, TheFirstRecordOfTypeZeroCounts) {
    const auto model =
        modelOf("[" + record(1, m_first.partNumber) + "," + record(0, m_last.partNumber) + "," +
                record(0, m_first.partNumber) + "]");
    ASSERT_TRUE(model);
    EXPECT_EQ(model->partNumber, m_last.partNumber);
}

TEST_F(Models, NoRecordOfTypeZeroIsNoModel) {
    EXPECT_FALSE(modelOf("[]"));
    EXPECT_FALSE(modelOf("[" + record(1, m_first.partNumber) + "]"));
}

TEST_F(Models, APartNumberWithoutARowIsNoModel) {
    EXPECT_FALSE(modelOf("[" + record(0, unknownPartNumber()) + "]"));
    EXPECT_FALSE(
        modelOf("[" + record(0, unknownPartNumber()) + "," + record(0, m_first.partNumber) + "]"));
}

TEST_F(Models, AFileThatCannotBeReadIsNoModelAndSilent) {
    const Testing::LogCapture log;
    EXPECT_FALSE(findModel(m_room / "missing"));
    EXPECT_FALSE(findModel(m_room.path()));
    EXPECT_FALSE(modelOf(""));
    EXPECT_FALSE(modelOf("garbage"));
    EXPECT_FALSE(modelOf("[" + record(0, m_first.partNumber) + ", 5]"));
    EXPECT_FALSE(
        modelOf(R"([{"type":"0","serial":"S","partnumber":"99999999999","revision":"1"}])"));
    EXPECT_TRUE(log.records().empty());
}

TEST_F(ModelsDeathTest, OtherCharactersThanDigitsEndTheProcess) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    write(R"([{"type":"0","serial":"S","partnumber":"none","revision":"1"}])");
    EXPECT_DEATH(findModel(m_file),
                 "Assertion failed: \\[CppUtil::str_isonly_digits\\(partNumber\\)\\]");
}

}  // namespace
}  // namespace Hox::SystemAPI
