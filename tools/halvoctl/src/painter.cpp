#include "painter.h"

namespace Hox::Ctl {

std::string Painter::paint(Color color, const std::string& text) const {
    if (!m_isOn) {
        return text;
    }
    const auto* code = "34";
    switch (color) {
        case Color::Green:
            code = "32";
            break;
        case Color::Yellow:
            code = "33";
            break;
        case Color::Red:
            code = "31";
            break;
        case Color::Blue:
            break;
    }
    return std::string("\x1b[") + code + "m" + text + "\x1b[0m";
}

}  // namespace Hox::Ctl
