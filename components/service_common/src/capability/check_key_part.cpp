#include "hox/service_common/capability/check_key_part.h"

#include "hox/observer_tree/path_manipulation.h"

namespace Hox::Service {

using ObserverTree::ProtoStatus;

ObserverTree::Status checkKeyPart(const std::string& part) {
    if (!part.empty() && ObserverTree::PathManipulation().isKey("/" + part)) {
        return {};
    }
    return {ProtoStatus::INVALID_ARGUMENT,
            "\"" + part +
                "\" cannot be a part of a key: none of its components may be empty, contain an "
                "asterisk, or begin and end with a dot"};
}

}  // namespace Hox::Service
