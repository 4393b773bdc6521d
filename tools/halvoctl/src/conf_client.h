#pragma once

#include <string>

#include "configuration.pb.h"
#include "connection.h"

namespace Hox::Ctl {

/// The calls of a configuration store on the whole configuration. Every function throws CtlError if
/// its call fails.
class ConfClient {
public:
    using Update = Hox::Capability::Configuration::Api::UpdateType;

    /// The connection must outlive this object.
    explicit ConfClient(const Connection& connection) : m_connection(connection) {}

    /// The saved configuration as a package.
    std::string exportPackage() const;

    /// Replaces everything by the package.
    void importPackage(const std::string& package) const;

    /// Makes the configuration in force the saved one.
    void save() const;

    /// Reverts to the saved configuration.
    void revert() const;

    /// Removes everything.
    void clear() const;

private:
    void update(const Update& update) const;

    const Connection& m_connection;
};

}  // namespace Hox::Ctl
