#include "common/sample_notifications.h"

#include <fmt/format.h>

namespace Hox::Benchmarks {

namespace {

Api::StateNotification notificationOf(const std::string& serviceId, const std::string& source) {
    Api::StateNotification notification;
    notification.mutable_timestamp()->set_seconds(1700000000);
    notification.mutable_timestamp()->set_nanos(123456789);
    notification.set_severity(Api::OK);
    notification.set_service_id(serviceId);
    notification.set_type("Cap_StateMonitoring_TestNotificationType");
    notification.set_source(source);
    notification.set_msg(fmt::format("Configuration of {} was updated by the operator", source));
    return notification;
}

}  // namespace

Api::StateNotification sampleNotification(int origin) {
    return notificationOf("head-1", fmt::format("sys/conf/update/{:05}", origin));
}

Api::StateNotification markerNotification(int marker) {
    return notificationOf("marker", fmt::format("observer/{:05}", marker));
}

std::string latestKey(const Api::StateNotification& notification) {
    return fmt::format("/state/notifications/latest/{}/{}/{}", notification.service_id(),
                       notification.type(), notification.source());
}

std::string archiveKey(int index) {
    return fmt::format("/state/notifications/archive/{:010}", index);
}

}  // namespace Hox::Benchmarks
