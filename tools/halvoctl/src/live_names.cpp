#include "live_names.h"

#include <algorithm>
#include <map>
#include <set>

#include "conf_client.h"
#include "confirm_records.h"
#include "follower.h"
#include "logger_client.h"
#include "logger_name.h"
#include "obstree.pb.h"
#include "package.h"
#include "state_client.h"

namespace Hox::Ctl {

namespace {

std::vector<std::string> loggers(const Connection& connection) {
    std::set<std::string> names;
    const auto all = LoggerClient(connection).all();
    for (const auto& logger : all.logger()) {
        names.insert(shortLoggerName(logger.name()));
    }
    return {names.begin(), names.end()};
}

std::vector<std::string> origins(const Connection& connection) {
    std::vector<std::string> names;
    for (const auto& stored : StateClient(connection).latest()) {
        const auto& report = stored.statenotification();
        names.push_back(report.service_id() + "/" + report.type() + "/" + report.source());
    }
    return names;
}

std::vector<std::string> changes(const Surroundings& surroundings) {
    std::vector<std::string> names;
    for (const auto& pending : pendingConfirmations(surroundings)) {
        names.push_back(pending.id);
    }
    return names;
}

/// Adds what a key that begins with the start has up to its next slash.
void addNext(std::set<std::string>& names, const std::string& key, const std::string& start) {
    if (key.compare(0, start.size(), start) == 0) {
        const auto slash = key.find('/', std::max<std::size_t>(start.size(), 1));
        names.insert(key.substr(0, slash == std::string::npos ? slash : slash + 1));
    }
}

std::vector<std::string> savedKeys(const Connection& connection, const std::string& start) {
    const Package package(ConfClient(connection).exportPackage());
    std::set<std::string> names;
    for (const auto& [key, value] : package.values()) {
        addNext(names, key, start);
    }
    return {names.begin(), names.end()};
}

}  // namespace

std::vector<std::string> LiveNames::at(const std::string& place, const std::string& start) const {
    if (place == "ID") {
        return changes(m_session.surroundings());
    }
    const std::set<std::string> asked{"METHOD", "SYMBOL", "PATTERN", "KEY", "GLOB", "ORIGIN"};
    if (asked.count(place) == 0) {
        return {};
    }
    const auto connections = m_session.connectAll(m_interrupt);
    const auto& connection = *connections.front();
    if (place == "METHOD" || place == "SYMBOL") {
        return methods(connection);
    }
    if (place == "PATTERN") {
        return keys(connection, start);
    }
    if (place == "KEY") {
        return savedKeys(connection, start);
    }
    return place == "GLOB" ? loggers(connection) : origins(connection);
}

std::vector<std::string> LiveNames::methods(const Connection& connection) const {
    const auto model = m_session.modelOf(connection);
    std::map<std::string, int> counts;
    for (const auto* method : model->methods()) {
        ++counts[method->name()];
    }
    std::vector<std::string> names;
    for (const auto* method : model->methods()) {
        names.push_back(counts[method->name()] == 1
                            ? method->name()
                            : method->service()->full_name() + "/" + method->name());
    }
    return names;
}

std::vector<std::string> LiveNames::keys(const Connection& connection,
                                         const std::string& start) const {
    const auto model = m_session.modelOf(connection);
    const auto& method = observeMethod(*model, "");
    ObserverTree::ObserveReq request;
    request.set_key_pattern("/**");
    using Snapshot = ObserverTree::ObsTreeObserveChangeSet;
    const auto stream =
        connection.open(ServiceModel::pathOf(method), request, std::make_unique<Snapshot>());
    if (stream->next(std::chrono::system_clock::time_point::max()) !=
        ResponseStream::Event::Element) {
        return {};
    }
    const auto& snapshot = static_cast<const Snapshot&>(stream->element());
    std::set<std::string> names;
    for (const auto& [key, changes] : snapshot.node_change_map()) {
        addNext(names, key, start);
    }
    return {names.begin(), names.end()};
}

}  // namespace Hox::Ctl
