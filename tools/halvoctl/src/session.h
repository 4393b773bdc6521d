#pragma once

#include <google/protobuf/message.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "connection.h"
#include "global_options.h"
#include "painter.h"
#include "service_model.h"
#include "surroundings.h"

namespace Hox::Ctl {

/// One run of the tool: what the user has chosen, and where results go.
class Session {
public:
    /// The surroundings must outlive this object.
    Session(Surroundings& surroundings, GlobalOptions options);

    /// What the user has chosen.
    const GlobalOptions& options() const { return m_options; }

    /// The same session with this endpoint instead of what the user has named.
    Session withEndpoint(const std::string& endpoint) const;

    /// Whether results are JSON.
    bool isJson() const { return m_options.format != GlobalOptions::Format::Table; }

    /// Where results go.
    std::ostream& out() const { return m_surroundings.out; }

    /// The other things of the process.
    Surroundings& surroundings() const { return m_surroundings; }

    /// The colours of tables.
    const Painter& painter() const { return m_painter; }

    /// The time of day.
    std::chrono::system_clock::time_point now() const { return m_surroundings.clock(); }

    /// Prints one line for the user on the error output, unless he wants none.
    void note(const std::string& text) const;

    /// Prints the message as JSON, on one line or more.
    void print(const google::protobuf::Message& message) const;

    /// The connection to the only endpoint. Throws CtlError if the user has named several.
    std::unique_ptr<Connection> connect() const;

    /// The connection to one of the endpoints. Throws CtlError if it is looked for on the network
    /// and not found.
    std::unique_ptr<Connection> connect(const std::string& endpoint) const;

    /// The connections to all endpoints, whose calls end with this interrupt. Throws CtlError if
    /// one is not found.
    std::vector<std::unique_ptr<Connection>> connectAll(Interrupt& interrupt) const;

    /// The model of the service at the connection, which must outlive it.
    std::unique_ptr<ServiceModel> modelOf(const Connection& connection) const;

    /// Throws CtlError if the user has ended the command.
    void checkInterrupt() const;

private:
    std::unique_ptr<Connection> connectTo(const std::string& endpoint, Interrupt& interrupt) const;

    Surroundings& m_surroundings;
    GlobalOptions m_options;
    Painter m_painter;
};

}  // namespace Hox::Ctl
