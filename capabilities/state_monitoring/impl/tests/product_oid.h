#pragma once

#include <string>

namespace Hox::Capability::StateMonitoring::Fixture {

/// The object identifier of the product, with the enterprise number of this build, as it is sent.
std::string productOid();

}  // namespace Hox::Capability::StateMonitoring::Fixture
