#include "connect_urls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Hox::Capability::StateMonitoring {
namespace {

struct UrlsCase {
    std::string text;
    std::vector<std::string> urls;
};

class ConnectUrls : public testing::TestWithParam<UrlsCase> {};

TEST_P(ConnectUrls, ComeInOrder) {
    EXPECT_EQ(parseConnectUrls(GetParam().text), GetParam().urls);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ConnectUrls,
    testing::Values(UrlsCase{"10.0.0.1:5000", {"10.0.0.1:5000"}},
                    UrlsCase{"10.0.0.1:5000,5001", {"10.0.0.1:5000", "10.0.0.1:5001"}},
                    UrlsCase{"10.0.0.1:5002,5000,5001",
                             {"10.0.0.1:5002", "10.0.0.1:5000", "10.0.0.1:5001"}},
                    UrlsCase{"a:1,b:2", {"a:1", "a:b:2"}}, UrlsCase{"localhost", {"localhost"}},
                    UrlsCase{"", {""}}, UrlsCase{"10.0.0.1:", {"10.0.0.1:"}},
                    UrlsCase{"10.0.0.1:5000,", {"10.0.0.1:5000", "10.0.0.1:"}},
                    UrlsCase{"a:,1", {"a:", "a:1"}}, UrlsCase{"a:,", {"a:", "a:"}},
                    UrlsCase{"a:1,,2", {"a:1", "a:", "a:2"}}, UrlsCase{":1,2", {":1", ":2"}},
                    // Without a colon the whole text is both the address and the list of ports.
                    UrlsCase{"5000,5001", {"5000,5001:5000", "5000,5001:5001"}}));

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
