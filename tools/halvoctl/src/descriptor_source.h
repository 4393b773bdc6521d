#pragma once

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/descriptor_database.h>

#include <string>
#include <vector>

namespace Hox::Ctl {

/// Where the proto files of a service come from.
class DescriptorSource : public google::protobuf::DescriptorDatabase {
public:
    /// The full names of the services. Throws CtlError if they cannot be found out.
    virtual std::vector<std::string> services() = 0;

    /// Throws the error of the last look-up that failed for another reason than an unknown name.
    virtual void check() const = 0;
};

}  // namespace Hox::Ctl
