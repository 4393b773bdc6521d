#include "private_log_fixture.h"

#include <spdlog/spdlog.h>

#include <filesystem>
#include <fstream>

#include "hox/testing/private_mounts.h"
#include "hox/testing/skip_outside_ci.h"

namespace Hox::Log::Fixture {

namespace {

bool isPrivate() {
    static const bool result = Testing::mountPrivateFolders({"/run", "/var/log"});
    return result;
}

}  // namespace

void PrivateLogFixture::SetUpTestSuite() {
    isPrivate();
}

void PrivateLogFixture::SetUp() {
    if (!isPrivate()) {
        Testing::skipOutsideCi("this machine allows no private mounts");
        return;
    }
    std::filesystem::remove_all("/var/log/halvo");
    spdlog::drop_all();
}

void PrivateLogFixture::TearDown() {
    spdlog::drop_all();
}

std::vector<std::string> PrivateLogFixture::linesOf(const std::string& fileName) {
    std::vector<std::string> lines;
    std::ifstream file(folder + fileName);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace Hox::Log::Fixture
