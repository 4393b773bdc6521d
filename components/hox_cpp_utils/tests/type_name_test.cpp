#include "hox/cpputil/type/type_name.h"

#include <gtest/gtest.h>

#include <map>
#include <type_traits>
#include <vector>

#include "hox/cpputil/error/io_error.h"

namespace Hox {

struct Outer {
    struct Inner {};
};
template <typename T>
struct Box {};

namespace {

TEST(TypeName, IsFullyQualified) {
    EXPECT_EQ(getTemplateTypeName<int>(), "int");
    EXPECT_EQ(getTemplateTypeName<CppUtil::IOError>(), "Hox::CppUtil::IOError");
    EXPECT_EQ(getTemplateTypeName<Outer::Inner>(), "Hox::Outer::Inner");
    EXPECT_EQ(getTemplateTypeName<const CppUtil::IOError*>(), "const Hox::CppUtil::IOError*");
}

TEST(TypeName, OfATemplateHoldsItsArguments) {
    EXPECT_EQ(getTemplateTypeName<Box<Outer>>(), "Hox::Box<Hox::Outer>");
    EXPECT_EQ((getTemplateTypeName<std::map<int, Outer>>()), "std::map<int, Hox::Outer>");
    EXPECT_EQ(getTemplateTypeName<std::string>(), "std::__cxx11::basic_string<char>");
}

TEST(TypeName, EndsAtTheFirstClosingBracket) {
    EXPECT_EQ(getTemplateTypeName<int[3]>(), "int [3");
}

TEST(TypeName, IsAString) {
    EXPECT_TRUE((std::is_same_v<decltype(getTemplateTypeName<int>()), const std::string>));
}

}  // namespace
}  // namespace Hox
