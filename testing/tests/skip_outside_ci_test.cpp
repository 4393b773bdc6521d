#include "hox/testing/skip_outside_ci.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace Hox::Testing {
namespace {

using ::testing::ScopedFakeTestPartResultReporter;

class SkipOutsideCi : public ::testing::Test {
protected:
    SkipOutsideCi() {
        if (const char* former = std::getenv(variable); former != nullptr) {
            m_former = former;
        }
    }
    ~SkipOutsideCi() override {
        if (m_former) {
            setenv(variable, m_former->c_str(), 1);
        } else {
            unsetenv(variable);
        }
    }

    /// The result that the function gives to this test.
    ::testing::TestPartResult resultOfSkip() {
        {
            const ScopedFakeTestPartResultReporter reporter(
                ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &m_results);
            skipOutsideCi("the reason");
        }
        EXPECT_EQ(m_results.size(), 1);
        return m_results.GetTestPartResult(0);
    }

    static constexpr auto variable = "CI";

private:
    std::optional<std::string> m_former;
    ::testing::TestPartResultArray m_results;
};

TEST_F(SkipOutsideCi, SkipsWhereSomebodyLooks) {
    unsetenv(variable);
    const auto result = resultOfSkip();
    EXPECT_TRUE(result.skipped());
    EXPECT_STREQ(result.message(), "the reason");
}

TEST_F(SkipOutsideCi, FailsInCi) {
    setenv(variable, "", 1);
    const auto result = resultOfSkip();
    EXPECT_TRUE(result.fatally_failed());
    EXPECT_NE(std::string(result.message()).find("the reason"), std::string::npos);
}

}  // namespace
}  // namespace Hox::Testing
