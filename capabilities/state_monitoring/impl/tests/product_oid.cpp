#include "product_oid.h"

#include <cstdint>

namespace Hox::Capability::StateMonitoring::Fixture {

namespace {

/// Seven bits per byte, the highest first; all bytes but the last have the highest bit set.
std::string encoded(std::uint32_t number) {
    std::string bytes(1, static_cast<char>(number & 0x7f));
    while ((number >>= 7) != 0) {
        bytes.insert(bytes.begin(), static_cast<char>(0x80 | (number & 0x7f)));
    }
    return bytes;
}

}  // namespace

std::string productOid() {
    // 1.3.6.1.4.1 before the enterprise number, 3.1.10 after it.
    return "\x2b\x06\x01\x04\x01" + encoded(HALVO_ENTERPRISE_NUMBER) + "\x03\x01\x0a";
}

}  // namespace Hox::Capability::StateMonitoring::Fixture
