#pragma once

#include <google/protobuf/any.pb.h>

#include <string>

#include "configuration.pb.h"

namespace Hox::Benchmarks {

namespace ConfApi = Hox::Capability::Configuration::Api;

/// The numbered key inside a slice, ten to a device.
std::string settingKey(int setting);

/// What is stored under the key: a packed text of 100 bytes that differs from key to key.
google::protobuf::Any settingValue(int setting);

/// The slice with this capability id.
ConfApi::ConfId sampleSlice(const std::string& capabilityId);

/// Puts that many settings into the slice in place of what it holds, on top of no state id.
ConfApi::UpdateCapConfReq fullUpdate(const ConfApi::ConfId& slice, int settings);

}  // namespace Hox::Benchmarks
