#pragma once

#include <google/protobuf/message.h>

#include <optional>
#include <set>
#include <string>

#include "hox/observer_tree/path_manipulation.h"

namespace Hox::Ctl {

/// Finds requests that a service refuses, never answers, or that damage it or its data. The verdict
/// about keys and patterns is that of the services' own parser.
class RequestGuard {
public:
    /// Throws CtlError with the reason if the request must not be sent. With isOwner the
    /// observation of a slice is let through: a second observer of a slice ends the service.
    void check(const google::protobuf::Message& request, bool isOwner) const;

    /// Throws CtlError if the key pattern is malformed or can never match.
    void checkPattern(const std::string& pattern) const;

    /// The slice that the request replaces as a whole, as nodeType/nodeId/capability; nothing for
    /// other requests.
    static std::optional<std::string> replacedSlice(const google::protobuf::Message& request);

    /// Throws CtlError if replacing the slice also wipes one of the others: a store replaces
    /// everything whose name begins with that of the slice.
    static void checkReplaced(const std::string& slice, const std::set<std::string>& others);

private:
    std::optional<std::string> objection(const google::protobuf::Message& request,
                                         bool isOwner) const;
    std::optional<std::string> objectionToPattern(const std::string& pattern) const;
    std::optional<std::string> objectionToReport(const google::protobuf::Message& request) const;
    std::optional<std::string> objectionToUpdate(const google::protobuf::Message& request) const;

    ObserverTree::PathManipulation m_paths;
};

}  // namespace Hox::Ctl
