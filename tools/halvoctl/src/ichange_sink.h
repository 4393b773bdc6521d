#pragma once

#include "changes.pb.h"
#include "packed_values.h"
#include "service_model.h"

namespace Hox::Ctl {

/// Where changes go. One thread at a time calls it.
class IChangeSink {
public:
    virtual ~IChangeSink() = default;

    /// Takes a complete change, with the model of its service. Throws CtlError if the command
    /// cannot go on.
    virtual void take(const Change& change, const ServiceModel& model,
                      const PackedValues& values) = 0;

    /// The changes of one element have all been taken.
    virtual void flush() = 0;
};

}  // namespace Hox::Ctl
