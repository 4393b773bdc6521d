#pragma once

namespace Hox::Service::Discovery::Avahi {

/// Owns one Avahi object. The destructor frees it, unless release() has done so. Every call holds
/// the Avahi mutex.
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
