#include "request_guard.h"

#include <algorithm>
#include <variant>

#include "configuration.pb.h"
#include "ctl_error.h"
#include "error_reason.h"
#include "hox/observer_tree/path_error.h"
#include "obstree.pb.h"
#include "printable.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

using google::protobuf::Message;
using ObserverTree::PathComponent;
using ObserverTree::PathType;
using ObserverTree::WildCard;

namespace ConfigurationApi = Hox::Capability::Configuration::Api;
namespace StateApi = Hox::Capability::StateMonitoring::Api;

namespace {

/// A longer type filter is refused by the service.
constexpr std::size_t longestFilter = 1000;

/// The request as the type that this program was built with, nothing for other types.
template <typename T>
std::optional<T> as(const Message& request) {
    T known;
    if (request.GetDescriptor()->full_name() != T::descriptor()->full_name() ||
        !known.ParsePartialFromString(request.SerializePartialAsString())) {
        return std::nullopt;
    }
    return known;
}

}  // namespace

void RequestGuard::check(const Message& request, bool isOwner) const {
    if (const auto reason = objection(request, isOwner)) {
        throw CtlError(ExitCode::Usage, "not sent: " + *reason);
    }
}

void RequestGuard::checkPattern(const std::string& pattern) const {
    if (const auto reason = objectionToPattern(pattern)) {
        throw CtlError(ExitCode::Usage, "not sent: " + *reason);
    }
}

std::optional<std::string> RequestGuard::replacedSlice(const Message& request) {
    const auto update = as<ConfigurationApi::UpdateCapConfReq>(request);
    if (!update || update->ispatch()) {
        return std::nullopt;
    }
    const auto& id = update->confid();
    return id.nodetype() + "/" + id.nodeid() + "/" + id.capabilityid();
}

void RequestGuard::checkReplaced(const std::string& slice, const std::set<std::string>& others) {
    for (const auto& other : others) {
        if (other != slice && other.compare(0, slice.size(), slice) == 0) {
            throw CtlError(ExitCode::Usage,
                           "not sent: it would also wipe the slice " + printable(other));
        }
    }
}

std::optional<std::string> RequestGuard::objection(const Message& request, bool isOwner) const {
    if (const auto observe = as<ObserverTree::ObserveReq>(request)) {
        return objectionToPattern(observe->key_pattern());
    }
    if (const auto query = as<StateApi::GetStateNotificationsReq>(request)) {
        if (query->typeregex().size() > longestFilter) {
            return "the type filter has more than 1000 bytes";
        }
    }
    if (!isOwner && as<ConfigurationApi::ObserveCapConfReq>(request)) {
        return "a slice has one observer, its owner, and a second one ends the service; --owner "
               "sends it all the same";
    }
    if (auto reason = objectionToReport(request)) {
        return reason;
    }
    return objectionToUpdate(request);
}

std::optional<std::string> RequestGuard::objectionToPattern(const std::string& pattern) const {
    try {
        const auto components = m_paths.parsePath(PathType::KeyPattern, pattern);
        const auto doubleStar =
            std::find(components.begin(), components.end(), PathComponent(WildCard::DoubleStar));
        if (std::any_of(doubleStar, components.end(), [](const PathComponent& component) {
                return std::holds_alternative<std::string>(component);
            })) {
            return "no key can match a pattern with a name after \"**\"";
        }
    } catch (const ObserverTree::PathError& error) {
        return reasonOf(error);
    }
    return std::nullopt;
}

std::optional<std::string> RequestGuard::objectionToReport(const Message& request) const {
    const auto create = as<StateApi::CreateStateNotificationReq>(request);
    if (!create) {
        return std::nullopt;
    }
    const auto& report = create->statenotification();
    if (report.service_id().empty() || report.type().empty() || report.source().empty()) {
        return "a report needs a service, a type and a source";
    }
    try {
        m_paths.parsePath(PathType::Key,
                          "/" + report.service_id() + "/" + report.type() + "/" + report.source());
    } catch (const ObserverTree::PathError& error) {
        return reasonOf(error);
    }
    return std::nullopt;
}

std::optional<std::string> RequestGuard::objectionToUpdate(const Message& request) const {
    const auto update = as<ConfigurationApi::UpdateCapConfReq>(request);
    if (!update) {
        return std::nullopt;
    }
    for (const auto& [key, pairs] : update->capconfchangeset().node_change_map()) {
        if (key.empty() || key.front() != '/') {
            return "the key \"" + key + "\" has no leading slash";
        }
        if (pairs.nodepairlist().empty()) {
            return "the key \"" + key + "\" has no values";
        }
    }
    return std::nullopt;
}

}  // namespace Hox::Ctl
