#pragma once

#include <cstdint>
#include <functional>
#include <utility>

namespace Hox::CppUtil {

/// A move-only value that represents a resource held elsewhere and releases it on destruction.
///
/// One holder at a time; the handle itself takes no lock. The release function runs on the thread
/// that destroys the handle or assigns to it, so the code it calls must take its own locks. An
/// exception from it ends the process.
template <typename T>
class ResourceHandle {
public:
    using Release = std::function<void(const ResourceHandle<T>&)>;

    /// An empty handle: not valid, nothing to release.
    ResourceHandle() = default;

    /// Holds the resource with this number. On destruction the release function gets the handle,
    /// which is still valid. An empty function means that there is nothing to do.
    explicit ResourceHandle(T value, Release release = Release())
        : m_value(std::move(value)), m_state(holdsResource), m_release(std::move(release)) {}

    /// Releases what the handle holds.
    virtual ~ResourceHandle() {
        if (m_release) {
            m_release(*this);
        }
    }

    ResourceHandle(const ResourceHandle&) = delete;
    ResourceHandle& operator=(const ResourceHandle&) = delete;

    /// Takes over the resource; the source holds nothing afterwards.
    ResourceHandle(ResourceHandle&& other) noexcept
        : m_value(std::move(other.m_value)),
          m_state(std::exchange(other.m_state, isEmpty)),
          m_release(std::exchange(other.m_release, Release())) {}

    /// Releases its own resource first, then takes over the other; the source holds nothing
    /// afterwards. Assigning a handle to itself changes nothing.
    ResourceHandle& operator=(ResourceHandle&& other) noexcept {
        if (this == &other) {
            return *this;
        }
        if (m_state == holdsResource && m_release) {
            m_release(*this);
        }
        // The old function is destroyed last: it may own the source.
        const Release old = std::exchange(m_release, std::exchange(other.m_release, Release()));
        m_value = std::move(other.m_value);
        m_state = std::exchange(other.m_state, isEmpty);
        return *this;
    }

    /// Whether the handle holds a resource.
    virtual bool isValid() const { return m_state == holdsResource; }

    /// The resource's number; meaningless unless the handle is valid.
    const T& value() const { return m_value; }

private:
    static constexpr std::intptr_t holdsResource = 0;
    static constexpr std::intptr_t isEmpty = -1;

    T m_value = T();
    std::intptr_t m_state = isEmpty;
    Release m_release;
};

extern template class ResourceHandle<unsigned int>;

}  // namespace Hox::CppUtil
