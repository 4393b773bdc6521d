#pragma once

#include <google/protobuf/duration.pb.h>

#include <memory>
#include <utility>

#include "hox/observer_tree/data_tree.h"

namespace Hox::Capability::Configuration::Fixture {

/// A value of a tree.
inline Hox::ObserverTree::DataTreeValPtr seconds(int value) {
    google::protobuf::Duration message;
    message.set_seconds(value);
    return std::make_shared<const Hox::ObserverTree::DataTreeVal>(std::move(message));
}

/// What a store has for seconds(2).
constexpr const char* twoSeconds =
    R"({"@type":"type.googleapis.com/google.protobuf.Duration","value":"2s"})";

}  // namespace Hox::Capability::Configuration::Fixture
