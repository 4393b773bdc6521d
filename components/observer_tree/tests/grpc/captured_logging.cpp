#include <gtest/gtest.h>

#include <memory>

#include "hox/testing/log_capture.h"

namespace {

/// Installs the log system of the captures before the first test: it records before a log call
/// returns.
class CapturedLogging : public ::testing::Environment {
public:
    void SetUp() override { const Hox::Testing::LogCapture installed; }
};

const auto* const capturedLogging =
    ::testing::AddGlobalTestEnvironment(std::make_unique<CapturedLogging>().release());

}  // namespace
