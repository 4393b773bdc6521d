#pragma once

#include <google/protobuf/descriptor.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "change_tracker.h"
#include "connection.h"
#include "interrupt.h"
#include "packed_values.h"
#include "service_model.h"

namespace Hox::Ctl {

/// Follows the keys of one service that match a pattern, also over losses of the connection.
class Follower {
public:
    /// Who is told; called on the thread that runs the follower.
    struct Listener {
        std::function<void(std::vector<Change>)> changes;  ///< All changes of one element.
        std::function<void(const std::string&)> note;      ///< Something for the user.
    };

    /// What is followed.
    struct Subject {
        const Connection& connection;                      ///< The connection of all calls.
        const ServiceModel& model;                         ///< The model of the service.
        const PackedValues& values;                        ///< Compares the values.
        const google::protobuf::MethodDescriptor& method;  ///< The method that observes.
        std::string pattern;                               ///< The pattern of the keys.
        bool hasSnapshot = true;                           ///< Whether the first one is told.
    };

    /// The connection, the model, the values and the interrupt must outlive this object.
    Follower(Subject subject, Interrupt& end, Listener listener);
    ~Follower() = default;
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    /// Follows until the interrupt. Throws CtlError if the service is not reached at first, or
    /// refuses the observation.
    void run();

private:
    void followOnce();
    void settle(ResponseStream& stream);
    void deliver(std::vector<Change> changes) const;
    void awaitAnswer() const;

    Subject m_subject;
    Interrupt& m_end;
    Listener m_listener;
    ChangeTracker m_tracker;
    std::string m_probe;
    bool m_hasBeenConnected = false;
    bool m_isConnected = false;
};

/// The method of the service by which the keys of its tree are observed; with a name, of the gRPC
/// service whose full name ends with it. Throws CtlError if there is none or more than one.
const google::protobuf::MethodDescriptor& observeMethod(const ServiceModel& model,
                                                        const std::string& service);

}  // namespace Hox::Ctl
