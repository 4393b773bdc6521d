#include "key_owner.h"

#include <fmt/format.h>

#include <chrono>
#include <set>

#include "ctl_error.h"
#include "discovery.h"
#include "error_reason.h"
#include "hox/configuration/storable_key.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "mdns_daemon.h"
#include "package.h"
#include "package.pb.h"
#include "printable.h"
#include "table.h"

namespace Hox::Ctl {

namespace {

[[noreturn]] void refuseKey(const std::string& reason) {
    throw CtlError(ExitCode::Usage, printable(reason));
}

/// The three parts of the key's slice.
KeyOwner ownerOf(const std::string& key) {
    try {
        const ObserverTree::PathManipulation paths;
        paths.parsePath(ObserverTree::PathType::Key, key);
    } catch (const ObserverTree::PathError& error) {
        refuseKey(reasonOf(error));
    }
    const auto slice = componentsOf(sliceOf(key));
    if (slice.size() != 3) {
        refuseKey("Key is in no slice: " + key);
    }
    const auto reason = Hox::Capability::Configuration::whyNotStorable(key);
    if (!reason.empty()) {
        refuseKey(reason);
    }
    KeyOwner owner;
    owner.set_key(key);
    owner.set_node_type(slice[0]);
    owner.set_node_id(slice[1]);
    owner.set_capability(slice[2]);
    return owner;
}

/// The ids of the services on the network that have the capability; none without a daemon that
/// answers soon.
std::set<std::string> servicesWith(const Session& session, const std::string& capability) {
    constexpr std::chrono::milliseconds answerTime(300);
    std::set<std::string> ids;
    if (!whyNoMdns(answerTime).empty()) {
        return ids;
    }
    try {
        const auto all =
            findCapabilities(session.surroundings().interrupt, session.options().timeout,
                             [&session](const std::string& text) { session.note(text); });
        for (const auto& found : all) {
            if (found.capability == capability) {
                ids.insert(printable(found.serviceId));
            }
        }
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw;
        }
    }
    return ids;
}

}  // namespace

ExitCode showOwner(Session& session, const std::string& key) {
    auto owner = ownerOf(key);
    for (const auto& id : servicesWith(session, owner.capability())) {
        owner.add_service_ids(id);
    }
    if (session.isJson()) {
        for (auto* const text : {owner.mutable_key(), owner.mutable_node_type(),
                                 owner.mutable_node_id(), owner.mutable_capability()}) {
            *text = printable(*text);
        }
        session.print(owner);
        return ExitCode::Done;
    }
    const auto services = fmt::format("{}", fmt::join(owner.service_ids(), ", "));
    Table table({"NODE TYPE", "NODE ID", "CAPABILITY", "SERVICE"});
    table.add({owner.node_type(), owner.node_id(), owner.capability(),
               services.empty() ? "-" : services});
    table.print(session.out(), session.painter());
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
