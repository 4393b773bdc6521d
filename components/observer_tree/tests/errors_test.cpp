#include "hox/cpputil/error/error.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "hox/observer_tree/access_violation_error.h"
#include "hox/observer_tree/data_tree_val_error.h"
#include "hox/observer_tree/double_registration_error.h"
#include "hox/observer_tree/func_node_handler_error.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/unexpected_index.h"

namespace Hox::ObserverTree {
namespace {

template <typename ErrorType>
std::string textOf(const std::string& message) {
    static_assert(std::is_base_of_v<Hox::Error, ErrorType>);
    const ErrorType fromString(message, "dir/file.cpp", 5);
    const char* text = message.c_str();
    const ErrorType fromCString(text, "dir/file.cpp", 5);
    EXPECT_STREQ(fromString.what(), fromCString.what());
    const std::exception& base = fromString;
    return base.what();
}

TEST(TreeErrors, PrependTheirPrefixAndAppendThePlace) {
    EXPECT_EQ(textOf<PathError>("M"), "PathError: M(dir/file.cpp:5)");
    EXPECT_EQ(textOf<DataTreeValError>("M"), "DataTreeValError Error: M(dir/file.cpp:5)");
    EXPECT_EQ(textOf<AccessViolationError>("M"), "AccessViolationError: M(dir/file.cpp:5)");
    EXPECT_EQ(textOf<FuncNodeHandlerError>("M"), "FuncNodeHandlerError: M(dir/file.cpp:5)");
    EXPECT_EQ(textOf<DoubleRegistrationError>("M"),
              "Only one registration is allowed: M(dir/file.cpp:5)");
}

TEST(TreeErrors, TellOfAnUnexpectedIndexAsABadVariantAccess) {
    const UnexpectedIndex error;
    const std::bad_variant_access& base = error;
    EXPECT_STREQ(base.what(), "Unexpected index");
}

}  // namespace
}  // namespace Hox::ObserverTree
