#include "check_result.h"

#include "printable.h"

namespace Hox::Ctl {

namespace {

Check makeCheck(const std::string& name, const char* result, const std::string& text) {
    Check check;
    check.set_name(name);
    check.set_result(result);
    check.set_text(printable(text));
    return check;
}

}  // namespace

Check passed(const std::string& name, const std::string& text) {
    return makeCheck(name, "ok", text);
}

Check warned(const std::string& name, const std::string& text) {
    return makeCheck(name, "warn", text);
}

Check failed(const std::string& name, const std::string& text) {
    return makeCheck(name, "FAIL", text);
}

std::string lineOf(const Check& check, const Painter& painter) {
    const auto color = check.result() == "ok"     ? Painter::Color::Green
                       : check.result() == "warn" ? Painter::Color::Yellow
                                                  : Painter::Color::Red;
    return painter.paint(color, check.result()) + " " + check.name() + ": " + check.text();
}

}  // namespace Hox::Ctl
