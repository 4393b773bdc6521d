#include "service_checks.h"

#include <fmt/format.h>

#include <chrono>

#include "call_error.h"
#include "check_result.h"
#include "conf_client.h"
#include "finding_list.h"
#include "reflection.h"
#include "size_check.h"
#include "state_client.h"

namespace Hox::Ctl {

namespace {

/// Runs a check that calls the service; a call that fails is its result.
template <typename Examine>
Check attempt(const std::string& name, Examine examine) {
    try {
        return examine();
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw;
        }
        return failed(name, error.what());
    }
}

Check checkReflection(const Connection& connection, bool& isReached) {
    const std::string name = "reflection";
    try {
        const auto services = Reflection(connection).services();
        return passed(name, fmt::format("{} gRPC services", services.size()));
    } catch (const CallError& error) {
        isReached = error.code() != ExitCode::Unreachable;
        return warned(name, error.what() + std::string(isReached ? "; use --protoset" : ""));
    }
}

Check checkUnsaved(const Connection& connection) {
    const auto unsaved = unsavedServices(StateClient(connection).latest());
    return unsaved.empty()
               ? passed("unsaved", "everything is saved")
               : warned("unsaved", fmt::format("unsaved changes at {}: a restart loses them",
                                               fmt::join(unsaved, ", ")));
}

Check checkSize(const Connection& connection) {
    return sizeCheck(exportEstimate(Package(ConfClient(connection).exportPackage())));
}

}  // namespace

std::vector<Check> checkService(const Connection& connection) {
    bool isReached = true;
    const auto start = std::chrono::steady_clock::now();
    auto reflection = checkReflection(connection, isReached);
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
    if (!isReached) {
        return {failed("endpoint", connection.endpoint() + ": " + reflection.text())};
    }
    return {passed("endpoint",
                   fmt::format("{} answered in {:.1f} ms", connection.endpoint(), time.count())),
            std::move(reflection),
            attempt("unsaved", [&connection] { return checkUnsaved(connection); }),
            attempt("package", [&connection] { return checkSize(connection); })};
}

}  // namespace Hox::Ctl
