#include "assertions_as_errors.h"

#include <stdexcept>
#include <string>

#include "hox/cpputil/assertion/assertion.h"

namespace Hox::Ctl {

AssertionsAsErrors::AssertionsAsErrors() {
    CppUtil::getAssertion().setOutputHandler(
        [](const std::string& text) { throw std::logic_error(text); });
}

AssertionsAsErrors::~AssertionsAsErrors() {
    CppUtil::getAssertion().setOutputHandler({});
}

}  // namespace Hox::Ctl
