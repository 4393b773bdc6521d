#pragma once

#include <variant>

namespace Hox::ObserverTree {

/// A path component is not of the kind that the matcher needs.
///
/// A separate class because the text of std::bad_variant_access differs between library versions.
class UnexpectedIndex : public std::bad_variant_access {
public:
    /// Always "Unexpected index".
    const char* what() const noexcept override { return "Unexpected index"; }
};

}  // namespace Hox::ObserverTree
