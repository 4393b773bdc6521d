#pragma once

#include "hox/cpputil/error/error.h"

namespace Hox::SystemAPI {

/// The serial file cannot be read or does not have the expected content.
class SerialNumberError : public Hox::Error {
public:
    using Error::Error;
};

}  // namespace Hox::SystemAPI
