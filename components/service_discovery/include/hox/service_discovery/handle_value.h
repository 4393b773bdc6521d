#pragma once

#include <utility>

#include "hox/service_discovery/handle.h"

namespace Hox::Service::Discovery {

/// A handle with something that belongs to its request. Moving it into a plain Handle keeps the
/// request and leaves the rest.
template <typename T>
class HandleValue : public Handle {
public:
    /// Holds nothing.
    HandleValue() = default;

    /// Takes both over.
    HandleValue(Handle handle, T content)
        : Handle(std::move(handle)), m_content(std::move(content)) {}

    /// What belongs to the request.
    T& content() { return m_content; }
    const T& content() const { return m_content; }

private:
    T m_content;
};

}  // namespace Hox::Service::Discovery
