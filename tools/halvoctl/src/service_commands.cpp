#include "service_commands.h"

#include <fmt/format.h>

#include <chrono>

#include "ctl_error.h"
#include "output.pb.h"
#include "reflection.h"
#include "table.h"

namespace Hox::Ctl {

namespace {

Method describeMethod(const google::protobuf::MethodDescriptor& method) {
    Method result;
    result.set_method(method.service()->full_name() + "/" + method.name());
    const auto binding = ServiceModel::bindingOf(method);
    if (binding.type() != ObserverTree::ObsTreeOptions::RESERVED) {
        result.set_operation(ObserverTree::ObsTreeOptions::func_type_Name(binding.type()));
        result.set_address(binding.key());
    }
    result.set_request(method.input_type()->full_name());
    result.set_response(method.output_type()->full_name());
    result.set_is_stream(method.server_streaming());
    return result;
}

}  // namespace

ExitCode ping(Session& session) {
    auto worst = ExitCode::Done;
    for (const auto& endpoint : session.options().endpoints) {
        Ping answer;
        try {
            const auto connection = session.connect(endpoint);
            answer.set_endpoint(connection->endpoint());
            const auto start = std::chrono::steady_clock::now();
            Reflection(*connection).services();
            const std::chrono::duration<double, std::milli> time =
                std::chrono::steady_clock::now() - start;
            answer.set_milliseconds(time.count());
        } catch (const CtlError& error) {
            if (error.code() == ExitCode::Interrupted) {
                throw;
            }
            session.note(endpoint + ": " + error.what());
            worst = worseOf(worst, error.code());
            continue;
        }
        if (session.isJson()) {
            session.print(answer);
        } else {
            session.out() << fmt::format("{} answered in {:.1f} ms\n", answer.endpoint(),
                                         answer.milliseconds());
        }
    }
    return worst;
}

ExitCode listMethods(Session& session) {
    const auto connection = session.connect();
    const auto model = session.modelOf(*connection);
    MethodList list;
    Table table({"METHOD", "OPERATION", "ADDRESS"});
    for (const auto* method : model->methods()) {
        const auto& entry = *list.add_methods() = describeMethod(*method);
        table.add({entry.method(), entry.operation().empty() ? "-" : entry.operation(),
                   entry.address().empty() ? "-" : entry.address()});
    }
    if (session.isJson()) {
        session.print(list);
    } else {
        table.print(session.out(), session.painter());
    }
    return ExitCode::Done;
}

ExitCode describe(Session& session, const std::string& symbol) {
    const auto connection = session.connect();
    session.out() << session.modelOf(*connection)->describe(symbol);
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
