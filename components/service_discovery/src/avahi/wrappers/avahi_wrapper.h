#pragma once

namespace Hox::Service::Discovery::Avahi {

/// Owns one Avahi object and frees it at the end at the latest. All under the Avahi mutex.
class AvahiWrapper {
public:
    AvahiWrapper() = default;
    virtual ~AvahiWrapper() = default;
    AvahiWrapper(const AvahiWrapper&) = delete;
    AvahiWrapper& operator=(const AvahiWrapper&) = delete;

    /// Frees the Avahi object: no callback of it runs any more. Asks the daemon, if there still is
    /// one.
    virtual void release() = 0;
};

}  // namespace Hox::Service::Discovery::Avahi
