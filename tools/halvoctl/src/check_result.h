#pragma once

#include <string>

#include "doctor.pb.h"
#include "painter.h"

namespace Hox::Ctl {

/// The three outcomes of a check. The text is for the operator, on one line.
///@{
Check passed(const std::string& name, const std::string& text);
Check warned(const std::string& name, const std::string& text);
Check failed(const std::string& name, const std::string& text);
///@}

/// The check for a reader, as in "ok endpoint: localhost:5005 answered".
std::string lineOf(const Check& check, const Painter& painter);

}  // namespace Hox::Ctl
