#include "hox/cpputil/error/error.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "hox/archive/error/archive_error.h"
#include "hox/cpputil/error/bad_cast.h"
#include "hox/cpputil/error/file_system_error.h"
#include "hox/cpputil/error/initialization_error.h"
#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/error/io_error.h"
#include "hox/cpputil/error/not_implemented_error.h"
#include "hox/cpputil/error/parsing_error.h"
#include "hox/linutils/error/file_descriptor_error.h"
#include "hox/observer_tree/access_violation_error.h"
#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/observer_tree/data_tree_val_error.h"
#include "hox/observer_tree/double_registration_error.h"
#include "hox/observer_tree/func_node_handler_error.h"
#include "hox/observer_tree/path_error.h"
#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/service_discovery/error/service_discovery_publish_error.h"
#include "hox/system_api/error/serial_number_error.h"

namespace Hox {
namespace {

/// Throws the error with each kind of message and returns the two texts that a handler of the base
/// class reads.
template <typename Err, typename Base>
std::vector<std::string> textsCaughtAs() {
    std::vector<std::string> texts;
    try {
        throw Err("the message", "folder/file.cpp", 5);
    } catch (const Base& error) {
        texts.emplace_back(error.what());
    }
    try {
        throw Err(std::string("the message"), "folder/file.cpp", 5);
    } catch (const Base& error) {
        texts.emplace_back(error.what());
    }
    return texts;
}

struct ErrorCase {
    const char* name;
    std::vector<std::string> (*texts)();
    const char* expected;
};

std::ostream& operator<<(std::ostream& out, const ErrorCase& errorCase) {
    return out << errorCase.name;
}

class ErrorTable : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(ErrorTable, HasItsCompleteText) {
    const auto& [name, texts, expected] = GetParam();
    const std::vector<std::string> both(2, expected);
    EXPECT_EQ(texts(), both) << name;
}

using Archive::ArchiveError;
using LinuxCppUtil::FileDescriptorError;
using Service::Discovery::ServiceDiscoveryError;
using Service::Discovery::ServiceDiscoveryPublishError;
using namespace CppUtil;
using namespace ObserverTree;

INSTANTIATE_TEST_SUITE_P(
    Errors, ErrorTable,
    ::testing::Values(
        ErrorCase{"Error", textsCaughtAs<Error, std::exception>, "the message(folder/file.cpp:5)"},
        ErrorCase{"IOError", textsCaughtAs<IOError, Error>,
                  "IOErrorr: the message(folder/file.cpp:5)"},
        ErrorCase{"FileSystemError", textsCaughtAs<FileSystemError, IOError>,
                  "IOErrorr: Generic filesystem Error: the message(folder/file.cpp:5)"},
        ErrorCase{"BadCast", textsCaughtAs<BadCast, Error>,
                  "Bad Cast Error: the message(folder/file.cpp:5)"},
        ErrorCase{"InvalidArgumentError", textsCaughtAs<InvalidArgumentError, Error>,
                  "Invalid Argument Error: the message(folder/file.cpp:5)"},
        ErrorCase{"ParsingError", textsCaughtAs<ParsingError, Error>,
                  "Generic parsing Error: the message(folder/file.cpp:5)"},
        ErrorCase{"NotImplementedError", textsCaughtAs<NotImplementedError, Error>,
                  "Not Implemented Error: the message(folder/file.cpp:5)"},
        ErrorCase{"InitializationError", textsCaughtAs<InitializationError, Error>,
                  "Initialization Error: the message(folder/file.cpp:5)"},
        ErrorCase{"FileDescriptorError", textsCaughtAs<FileDescriptorError, Error>,
                  "File descriptor Error: the message(folder/file.cpp:5)"},
        ErrorCase{"DoubleRegistrationError", textsCaughtAs<DoubleRegistrationError, Error>,
                  "Only one registration is allowed: the message(folder/file.cpp:5)"},
        ErrorCase{"FuncNodeHandlerError", textsCaughtAs<FuncNodeHandlerError, Error>,
                  "FuncNodeHandlerError: the message(folder/file.cpp:5)"},
        ErrorCase{"AccessViolationError", textsCaughtAs<AccessViolationError, Error>,
                  "AccessViolationError: the message(folder/file.cpp:5)"},
        ErrorCase{"ObsTreeBuildError", textsCaughtAs<ObsTreeBuildError, Error>,
                  "ObsTree Build Error: the message(folder/file.cpp:5)"},
        ErrorCase{"PathError", textsCaughtAs<PathError, Error>,
                  "PathError: the message(folder/file.cpp:5)"},
        ErrorCase{"DataTreeValError", textsCaughtAs<DataTreeValError, Error>,
                  "DataTreeValError Error: the message(folder/file.cpp:5)"},
        ErrorCase{"ArchiveError", textsCaughtAs<ArchiveError, Error>,
                  "Archiving error: the message(folder/file.cpp:5)"},
        ErrorCase{"SerialNumberError", textsCaughtAs<SystemAPI::SerialNumberError, Error>,
                  "the message(folder/file.cpp:5)"},
        ErrorCase{"ServiceDiscoveryError", textsCaughtAs<ServiceDiscoveryError, Error>,
                  "Service Discovery Error: the message(folder/file.cpp:5)"}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST(ErrorFamily, OnlyTheFileSystemErrorIsAnInputOutputError) {
    EXPECT_TRUE((std::is_base_of_v<IOError, FileSystemError>));
    EXPECT_FALSE((std::is_base_of_v<IOError, FileDescriptorError>));
    EXPECT_FALSE((std::is_base_of_v<IOError, ArchiveError>));
    EXPECT_FALSE((std::is_base_of_v<ServiceDiscoveryError, ServiceDiscoveryPublishError>));
}

TEST(ErrorFamily, KeepsAnEmptyMessageAndOddCharactersAsTheyAre) {
    EXPECT_STREQ(IOError("", "f", 0).what(), "IOErrorr: (f:0)");
    EXPECT_STREQ(Error("100 % {} %s\n", "f", -1).what(), "100 % {} %s\n(f:-1)");
}

TEST(ErrorFamily, TextOutlivesTheArguments) {
    const auto error = [] {
        const std::string message(100, 'm');
        const std::string file(100, 'f');
        return ParsingError(message, file.c_str(), 7);
    }();
    EXPECT_EQ(error.what(), "Generic parsing Error: " + std::string(100, 'm') + "(" +
                                std::string(100, 'f') + ":7)");
}

TEST(ErrorFamily, CopiesKeepTheText) {
    const auto first = std::make_unique<BadCast>("M", "F", 5);
    const BadCast second(*first);
    EXPECT_STREQ(second.what(), first->what());
}

TEST(ServiceDiscoveryPublishErrorTest, CarriesItsCodeInTextAndField) {
    const std::vector<int> codes{1, 0, -42};
    for (const int code : codes) {
        try {
            throw ServiceDiscoveryPublishError("failed to publish capability", code, "F", 5);
        } catch (const Error& error) {
            EXPECT_EQ(error.what(), "Service Discovery Publish Error(" + std::to_string(code) +
                                        "): failed to publish capability(F:5)");
        }
        EXPECT_EQ(ServiceDiscoveryPublishError("M", code, "F", 5).code(), code);
    }
}

}  // namespace
}  // namespace Hox
