#include <gtest/gtest.h>

#include <memory>

#include "hox/cpputil/log/logsystem.h"
#include "silent_logsystem.h"

namespace {

/// Keeps log records of the libraries off the terminal, as the program does.
class LogEnvironment : public ::testing::Environment {
public:
    void SetUp() override { Hox::Log::setLogsystem(std::make_unique<Hox::Ctl::SilentLogsystem>()); }
};

const auto* const environment =
    ::testing::AddGlobalTestEnvironment(std::make_unique<LogEnvironment>().release());

}  // namespace
