#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hox/testing/journal_receiver.h"

namespace Hox::Log::Fixture {

/// Gives each test an empty log folder and a fake journal that only receives, both visible to this
/// process only, and an empty registry of loggers.
class PrivateLogFixture : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override;

    /// The lines of a log file of that name.
    static std::vector<std::string> linesOf(const std::string& fileName);

    static constexpr auto folder = "/var/log/halvo/";
};

}  // namespace Hox::Log::Fixture
