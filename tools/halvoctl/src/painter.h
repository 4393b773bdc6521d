#pragma once

#include <string>

namespace Hox::Ctl {

/// Adds colours to texts for a terminal, or leaves them as they are.
class Painter {
public:
    /// The colours in use.
    enum class Color { Green, Yellow, Red, Blue };

    explicit Painter(bool isOn) : m_isOn(isOn) {}

    /// The text in the colour.
    std::string paint(Color color, const std::string& text) const;

private:
    bool m_isOn;
};

}  // namespace Hox::Ctl
