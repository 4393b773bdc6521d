#include "key_owner.h"

#include "ctl_error.h"
#include "hox/configuration/storable_key.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "mdns_daemon.h"
#include "package.h"
#include "package.pb.h"
#include "path_reason.h"
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

}  // namespace

ExitCode showOwner(Session& session, const std::string& key) {
    constexpr std::chrono::milliseconds limit(300);
    auto owner = ownerOf(key);
    for (const auto& id : servicesWith(owner.capability(), limit)) {
        owner.add_service_ids(printable(id));
    }
    if (session.isJson()) {
        session.print(owner);
        return ExitCode::Done;
    }
    std::string services;
    for (const auto& id : owner.service_ids()) {
        services += (services.empty() ? "" : ", ") + id;
    }
    Table table({"NODE TYPE", "NODE ID", "CAPABILITY", "SERVICE"});
    table.add({owner.node_type(), owner.node_id(), owner.capability(),
               services.empty() ? "-" : services});
    table.print(session.out(), session.painter());
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
