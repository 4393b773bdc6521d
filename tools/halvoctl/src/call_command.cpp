#include "call_command.h"

#include <google/protobuf/util/json_util.h>

#include <chrono>

#include "conf_client.h"
#include "ctl_error.h"
#include "input_text.h"
#include "json_text.h"
#include "package.h"
#include "request_guard.h"

namespace Hox::Ctl {

using google::protobuf::Message;
using google::protobuf::MethodDescriptor;

namespace {

void printStream(Session& session, const Connection& connection, const ServiceModel& model,
                 const MethodDescriptor& method, const Message& request) {
    const auto stream =
        connection.open(ServiceModel::pathOf(method), request, model.make(*method.output_type()));
    const JsonText json(model.pool());
    const auto never = std::chrono::system_clock::time_point::max();
    while (session.out() && stream->next(never) == ResponseStream::Event::Element) {
        session.out() << json.line(stream->element()) << std::endl;
    }
    session.checkInterrupt();
    stream->check();
}

}  // namespace

std::string CallCommand::textOfRequest(std::istream& in) const {
    const auto& data = m_options.data;
    if (data == "-") {
        return readInput(in, data);
    }
    return !data.empty() && data.front() == '@' ? readInput(in, data.substr(1)) : data;
}

ExitCode CallCommand::run(Session& session) const {
    const auto text = textOfRequest(session.surroundings().in);
    const auto connection = session.connect();
    const auto model = session.modelOf(*connection);
    const auto& method = model->method(m_options.method);
    if (method.client_streaming()) {
        throw CtlError(ExitCode::Usage, method.full_name() + " takes a stream of requests",
                       "only methods with one request can be called");
    }
    const auto request = model->make(*method.input_type());
    const auto parsed = google::protobuf::util::JsonStringToMessage(text, request.get());
    if (!parsed.ok()) {
        throw CtlError(ExitCode::Usage, "the request is no JSON of a " +
                                            method.input_type()->full_name() + ": " +
                                            std::string(parsed.message()));
    }
    RequestGuard().check(*request, m_options.isOwner);
    if (const auto slice = RequestGuard::replacedSlice(*request)) {
        // Of slices that have never been saved nothing can be known.
        const Package saved(ConfClient(*connection).exportPackage());
        RequestGuard::checkReplaced(*slice, saved.slices());
    }
    if (method.server_streaming()) {
        printStream(session, *connection, *model, method, *request);
        return ExitCode::Done;
    }
    const auto response = model->make(*method.output_type());
    connection->call(ServiceModel::pathOf(method), *request, *response);
    session.print(*response);
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
