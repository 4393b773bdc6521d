#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "conf_client.h"
#include "package.h"

namespace Hox::Ctl {

/// A package that is to replace a whole configuration.
class PackageImport {
public:
    /// Takes the package, also one that cannot be read: the service has the last word. Throws
    /// CtlError for one without any configuration, which would remove everything.
    explicit PackageImport(std::string bytes);

    /// Sends it. Throws CtlError; if the machine is another one, with a hint that names both.
    void send(const ConfClient& client) const;

    /// The package.
    const std::string& bytes() const { return m_bytes; }

    /// How many keys it has, without state ids; 0 if it cannot be read.
    std::uint32_t keys() const;

    /// In how many slices they are; 0 if it cannot be read.
    std::uint32_t slices() const;

    /// The sentence "Imported 5 keys in 1 slice." for its sender.
    std::string doneText() const;

private:
    std::string m_bytes;
    std::optional<Package> m_package;
};

}  // namespace Hox::Ctl
