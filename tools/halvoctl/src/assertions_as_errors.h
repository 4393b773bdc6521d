#pragma once

namespace Hox::Ctl {

/// As long as it exists, an assertion that fails on this thread throws std::logic_error instead of
/// ending the program: bad input of the service is a finding for its operator. One at a time, and
/// no other thread may assert meanwhile.
class AssertionsAsErrors {
public:
    AssertionsAsErrors();
    ~AssertionsAsErrors();
    AssertionsAsErrors(const AssertionsAsErrors&) = delete;
    AssertionsAsErrors& operator=(const AssertionsAsErrors&) = delete;
};

}  // namespace Hox::Ctl
