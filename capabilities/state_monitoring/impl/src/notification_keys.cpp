#include "notification_keys.h"

#include <fmt/format.h>

#include "hox/cpputil/string/string_utils.h"

namespace Hox::Capability::StateMonitoring {

namespace {

constexpr std::size_t indexDigits = 10;

}  // namespace

std::string latestKey(const Api::StateNotification& notification) {
    std::string key;
    key.reserve(latestPrefix.size() + notification.service_id().size() +
                notification.type().size() + notification.source().size() + 2);
    key.append(latestPrefix).append(notification.service_id());
    key.append(1, '/').append(notification.type());
    key.append(1, '/').append(notification.source());
    return key;
}

std::string archiveKey(int32_t index) {
    const fmt::format_int digits(index);
    std::string key;
    key.reserve(archivePrefix.size() + indexDigits);
    key.append(archivePrefix).append(indexDigits - digits.size(), '0');
    key.append(digits.data(), digits.size());
    return key;
}

bool liesUnder(Hox::ObserverTree::DataTree::const_iterator position, const std::string& prefix,
               const Hox::ObserverTree::DataTree& tree) {
    return position != tree.end() && Hox::CppUtil::str_starts_with(prefix, position->first);
}

}  // namespace Hox::Capability::StateMonitoring
