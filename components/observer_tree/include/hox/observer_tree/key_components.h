#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace Hox::ObserverTree {

/// The components of a key, in order, for range-for: the texts between its slashes.
///
/// The root key has none. Nothing is checked: the first character is assumed to be a slash, and
/// empty components are returned. Components are views into the text, which must outlive them.
class KeyComponents {
public:
    /// The separator of components.
    static constexpr char separator = '/';

    /// The position of one component.
    class Iterator {
    public:
        /// The component that starts at `start`, or the end for a start after the text.
        Iterator(std::string_view text, std::size_t start) : m_text(text), m_start(start) {
            findEnd();
        }

        /// The component.
        std::string_view operator*() const { return m_text.substr(m_start, m_end - m_start); }

        /// Moves to the next component.
        Iterator& operator++() {
            m_start = m_end + 1;
            findEnd();
            return *this;
        }

        /// Whether two positions in one text differ.
        bool operator!=(const Iterator& other) const { return m_start != other.m_start; }

    private:
        void findEnd() { m_end = std::min(m_text.find(separator, m_start), m_text.size()); }

        std::string_view m_text;
        std::size_t m_start;
        std::size_t m_end = 0;
    };

    /// The components of the text.
    explicit KeyComponents(std::string_view text) : m_text(text) {}

    /// The first component.
    Iterator begin() const { return m_text.size() > 1 ? Iterator(m_text, 1) : end(); }
    /// After the last component.
    Iterator end() const { return {m_text, m_text.size() + 1}; }

private:
    std::string_view m_text;
};

}  // namespace Hox::ObserverTree
