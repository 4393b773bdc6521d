#include "session.h"

#include <utility>

#include "ctl_error.h"
#include "discovery.h"
#include "json_text.h"
#include "known_files.h"
#include "printable.h"
#include "reflection.h"

namespace Hox::Ctl {

using google::protobuf::Message;

Session::Session(Surroundings& surroundings, GlobalOptions options)
    : m_surroundings(surroundings), m_options(std::move(options)), m_painter(m_options.hasColor) {}

Session Session::withEndpoint(const std::string& endpoint) const {
    auto options = m_options;
    options.endpoints = {endpoint};
    return {m_surroundings, std::move(options)};
}

void Session::note(const std::string& text) const {
    if (!m_options.isQuiet) {
        m_surroundings.err << "halvoctl: " << printableLines(text) << std::endl;
    }
}

void Session::print(const Message& message) const {
    const JsonText json(*message.GetDescriptor()->file()->pool());
    if (m_options.format == GlobalOptions::Format::Json) {
        out() << json.indented(message);
    } else {
        out() << json.line(message) << '\n';
    }
}

std::unique_ptr<Connection> Session::connectTo(const std::string& endpoint,
                                               Interrupt& interrupt) const {
    auto trace = [this](const std::string& path, const Message& request) {
        if (m_options.isVerbose) {
            const JsonText json(*request.GetDescriptor()->file()->pool());
            m_surroundings.err << "> " << path << " " << json.line(request) << std::endl;
        }
    };
    const auto address = resolveEndpoint(endpoint, interrupt, m_options.timeout,
                                         [this](const std::string& text) { note(text); });
    return std::make_unique<Connection>(address, m_surroundings.channel(address), interrupt,
                                        m_options.timeout, trace);
}

std::unique_ptr<Connection> Session::connect() const {
    if (m_options.endpoints.size() != 1) {
        throw CtlError(ExitCode::Usage, "this command has one endpoint");
    }
    return connectTo(m_options.endpoints.front(), m_surroundings.interrupt);
}

std::unique_ptr<Connection> Session::connect(const std::string& endpoint) const {
    return connectTo(endpoint, m_surroundings.interrupt);
}

std::vector<std::unique_ptr<Connection>> Session::connectAll(Interrupt& interrupt) const {
    std::vector<std::unique_ptr<Connection>> connections;
    for (const auto& endpoint : m_options.endpoints) {
        connections.push_back(connectTo(endpoint, interrupt));
    }
    return connections;
}

std::unique_ptr<ServiceModel> Session::modelOf(const Connection& connection) const {
    if (m_options.protoset.empty()) {
        return std::make_unique<ServiceModel>(std::make_unique<Reflection>(connection));
    }
    auto files = std::make_unique<KnownFiles>();
    files->addSet(m_options.protoset);
    return std::make_unique<ServiceModel>(std::move(files));
}

void Session::checkInterrupt() const {
    if (m_surroundings.interrupt.isRequested()) {
        throw CtlError(ExitCode::Interrupted, "");
    }
}

}  // namespace Hox::Ctl
