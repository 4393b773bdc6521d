#include "discover_command.h"

#include "discovery.h"
#include "output.pb.h"
#include "table.h"

namespace Hox::Ctl {

ExitCode discover(Session& session) {
    CapabilityList list;
    Table table({"CAPABILITY", "SERVICE", "ENDPOINT", "INTERFACE"});
    const auto found =
        findCapabilities(session.surroundings().interrupt, session.options().timeout,
                         [&session](const std::string& text) { session.note(text); });
    for (const auto& each : found) {
        auto& entry = *list.add_capabilities();
        entry.set_capability(each.capability);
        entry.set_service_id(each.serviceId);
        entry.set_endpoint(each.endpoint);
        entry.set_interface(each.interface);
        table.add({each.capability, each.serviceId, each.endpoint, each.interface});
    }
    if (session.isJson()) {
        session.print(list);
    } else {
        table.print(session.out(), session.painter());
    }
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
