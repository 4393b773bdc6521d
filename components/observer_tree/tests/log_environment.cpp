#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "hox/testing/log_capture.h"

namespace {

/// Keeps log records off the terminal, and keeps death tests free of the default logger's thread.
class LogEnvironment : public ::testing::Environment {
public:
    void SetUp() override { m_capture.emplace(spdlog::level::off); }
    void TearDown() override { m_capture.reset(); }

private:
    std::optional<Hox::Testing::LogCapture> m_capture;
};

const auto* const environment =
    ::testing::AddGlobalTestEnvironment(std::make_unique<LogEnvironment>().release());

}  // namespace
