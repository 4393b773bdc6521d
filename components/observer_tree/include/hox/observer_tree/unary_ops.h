#pragma once

#include <cstddef>

namespace Hox::ObserverTree {

/// The four unary operations. The value plus one is the operation's number in a method option.
enum class UnaryOps {
    CREATE = 0,
    READ = 1,
    UPDATE = 2,
    REMOVE = 3,
};

/// How many unary operations there are.
constexpr std::size_t unaryOpsCount = 4;

/// The operation's name, "INVALID_OPERATION" for a value outside the enumeration.
const char* toString(UnaryOps operation);

}  // namespace Hox::ObserverTree
