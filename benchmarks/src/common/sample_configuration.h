#pragma once

#include <google/protobuf/any.pb.h>

#include <string>

#include "configuration.pb.h"

namespace Hox::Benchmarks {

namespace ConfApi = Hox::Capability::Configuration::Api;

/// The key with this number inside a slice, ten keys per device.
std::string settingKey(int setting);

/// The value of the key: a packed text of 100 bytes that differs for each key.
google::protobuf::Any settingValue(int setting);

/// The slice with this capability id.
ConfApi::ConfId sampleSlice(const std::string& capabilityId);

/// An update that replaces the content of the slice by this number of settings, without a state id.
ConfApi::UpdateCapConfReq fullUpdate(const ConfApi::ConfId& slice, int settings);

}  // namespace Hox::Benchmarks
