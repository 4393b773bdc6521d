#include "request_guard.h"

#include <gtest/gtest.h>

#include "configuration.pb.h"
#include "ctl_error.h"
#include "obstree.pb.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

namespace {

namespace ConfigurationApi = Hox::Capability::Configuration::Api;
namespace StateApi = Hox::Capability::StateMonitoring::Api;

/// The reason why the request is not sent, empty if it is.
std::string reason(const google::protobuf::Message& request, bool isOwner = false) {
    try {
        RequestGuard().check(request, isOwner);
        return "";
    } catch (const CtlError& error) {
        EXPECT_EQ(error.code(), ExitCode::Usage);
        return error.what();
    }
}

std::string reasonForPattern(const std::string& pattern) {
    ObserverTree::ObserveReq request;
    request.set_key_pattern(pattern);
    return reason(request);
}

std::string reasonForReport(const std::string& service, const std::string& type,
                            const std::string& source) {
    StateApi::CreateStateNotificationReq request;
    request.mutable_statenotification()->set_service_id(service);
    request.mutable_statenotification()->set_type(type);
    request.mutable_statenotification()->set_source(source);
    return reason(request);
}

TEST(RequestGuard, PatternsThatCanMatchAreSent) {
    for (const auto* pattern : {"/", "/**", "/a/*/b", "/a/**/*", "/a"}) {
        EXPECT_EQ(reasonForPattern(pattern), "") << pattern;
    }
}

TEST(RequestGuard, MalformedPatternsAreNot) {
    EXPECT_EQ(reasonForPattern(""), "not sent: Path must not be empty");
    EXPECT_EQ(reasonForPattern("a"), "not sent: Initial character of path must be '/'; path = a. ");
    for (const auto* pattern : {"/a/", "//", "/a*", "/**/**", "/.x."}) {
        EXPECT_NE(reasonForPattern(pattern), "") << pattern;
    }
}

TEST(RequestGuard, PatternsWithANameAfterTwoStarsAreNot) {
    EXPECT_EQ(reasonForPattern("/a/**/b"),
              "not sent: no key can match a pattern with a name after \"**\"");
    EXPECT_NE(reasonForPattern("/**/*/b/*"), "");
}

TEST(RequestGuard, ReportsWithoutAValidKeyAreNot) {
    EXPECT_EQ(reasonForReport("a", "T", "s/deep"), "");
    EXPECT_EQ(reasonForReport("", "T", "s"),
              "not sent: a report needs a service, a type and a source");
    EXPECT_NE(reasonForReport("a", "", "s"), "");
    EXPECT_NE(reasonForReport("a", "T", ""), "");
    EXPECT_NE(reasonForReport("a", "T*", "s"), "");
    EXPECT_NE(reasonForReport("a", "T", ".x."), "");
    EXPECT_NE(reasonForReport("a", "T", "s/.x./t"), "");
    EXPECT_NE(reasonForReport("a", "T", "/s"), "");
    EXPECT_NE(reasonForReport("a", "T", "s/"), "");
}

TEST(RequestGuard, LongTypeFiltersAreNot) {
    StateApi::GetStateNotificationsReq request;
    request.set_typeregex(std::string(1000, 'a'));
    EXPECT_EQ(reason(request), "");
    request.set_typeregex(std::string(1001, 'a'));
    EXPECT_EQ(reason(request), "not sent: the type filter has more than 1000 bytes");
}

TEST(RequestGuard, OnlyTheOwnerObservesASlice) {
    const ConfigurationApi::ObserveCapConfReq request;
    EXPECT_NE(reason(request), "");
    EXPECT_EQ(reason(request, true), "");
}

TEST(RequestGuard, UpdatesThatDamageOtherSlicesAreNotSent) {
    ConfigurationApi::UpdateCapConfReq request;
    request.set_ispatch(true);
    auto& changes = *request.mutable_capconfchangeset()->mutable_node_change_map();
    changes["/a"].add_nodepairlist();
    EXPECT_EQ(reason(request), "");
    changes["/b"];
    EXPECT_EQ(reason(request), "not sent: the key \"/b\" has no values");
    changes["/b"].add_nodepairlist();
    changes["c"].add_nodepairlist();
    EXPECT_EQ(reason(request), "not sent: the key \"c\" has no leading slash");
}

TEST(RequestGuard, ASliceIsNotReplacedIfItsNameBeginsAnotherOne) {
    ConfigurationApi::UpdateCapConfReq request;
    request.mutable_confid()->set_nodetype("mb");
    request.mutable_confid()->set_nodeid("0");
    request.mutable_confid()->set_capabilityid("net");
    EXPECT_EQ(RequestGuard::replacedSlice(request), "mb/0/net");
    EXPECT_THROW(RequestGuard::checkReplaced("mb/0/net", {"mb/0/net", "mb/0/network"}), CtlError);
    EXPECT_NO_THROW(
        RequestGuard::checkReplaced("mb/0/net", {"mb/0/net", "mb/0/ne", "mb/1/network"}));
    request.set_ispatch(true);
    EXPECT_EQ(RequestGuard::replacedSlice(request), std::nullopt);
    EXPECT_EQ(RequestGuard::replacedSlice(ObserverTree::ObserveReq()), std::nullopt);
}

}  // namespace

}  // namespace Hox::Ctl
