#include "hox/service_common/capability/lum_capabilities.h"

#include <gmock/gmock.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Service {
namespace {

using ::testing::StartsWith;

TEST(CapabilityCatalogue, NamesEachType) {
    const std::vector<std::pair<CapabilityType, std::string>> table = {
        {CapabilityType::StreamRouter, "streamrouter"},
        {CapabilityType::ServiceRouter, "servicerouter"},
        {CapabilityType::LogControl, "log_control"},
        {CapabilityType::ServiceSupervisor, "service_supervisor"},
        {CapabilityType::HttpDocroot, "http_docroot"},
        {CapabilityType::RestGw, "restgw"},
        {CapabilityType::Tuner, "tuner"},
        {CapabilityType::SiPsi, "sipsi"},
        {CapabilityType::RfOutput, "rf_output"},
        {CapabilityType::TsSubscription, "ts_subscription"},
        {CapabilityType::IpInput, "ip_input"},
        {CapabilityType::IpOutput, "ip_output"},
        {CapabilityType::HttpFileUpload, "http_file_upload"},
        {CapabilityType::SwUpdate, "sw_update"},
        {CapabilityType::StateMonitoringUservice, "state_monitoring_uservice"},
        {CapabilityType::StateMonitoringNode, "state_monitoring_node"},
        {CapabilityType::StateMonitoringSystem, "state_monitoring_system"},
        {CapabilityType::RfInput, "rf_input"},
        {CapabilityType::Configuration, "configuration"},
        {CapabilityType::Cam, "cam"},
        {CapabilityType::SystemConfig, "system_config"},
        {CapabilityType::TimeController, "time_controller"},
        {CapabilityType::DvbManager, "dvb_manager"},
        {CapabilityType::Eit, "eit"},
        {CapabilityType::Introspection, "introspection"},
        {CapabilityType::Reserved, "reserved"},
        {CapabilityType::Epg, "epg"},
        {CapabilityType::TsStats, "ts_stats"},
        {CapabilityType::Scrambler, "scrambler"},
        {CapabilityType::VsecureClientHandler, "vsecure_client_handler"},
        {CapabilityType::Stacking, "stacking"},
        {CapabilityType::MediaPlayer, "mediaplayer"},
    };
    ASSERT_EQ(table.size(), 32U);
    for (std::size_t number = 0; number < table.size(); ++number) {
        EXPECT_EQ(static_cast<std::size_t>(table[number].first), number);
        EXPECT_EQ(capabilityName(static_cast<int>(number)), table[number].second) << number;
    }
}

TEST(CapabilityCatalogue, RefusesNumbersOutside) {
    for (const int number : {32, 33, std::numeric_limits<int>::max(), -1}) {
        try {
            capabilityName(number);
            FAIL() << number;
        } catch (const CppUtil::InvalidArgumentError& error) {
            EXPECT_THAT(error.what(), StartsWith("Invalid Argument Error: Invalid service type("));
        }
    }
}

}  // namespace
}  // namespace Hox::Service
