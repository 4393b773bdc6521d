#pragma once

#include "hox/cpputil/error/error.h"

namespace Hox::SystemAPI {

/// The serial file cannot be read or is not what it should be.
class SerialNumberError : public Hox::Error {
public:
    using Error::Error;
};

}  // namespace Hox::SystemAPI
