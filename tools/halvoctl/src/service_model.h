#pragma once

#include <google/protobuf/any.pb.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "descriptor_source.h"
#include "obstree.pb.h"

namespace Hox::Ctl {

/// What a service offers: its methods and message types, also those that this program was not built
/// with. Any number of threads may use it.
class ServiceModel {
public:
    /// Reads the proto files from the source as they are needed.
    explicit ServiceModel(std::unique_ptr<DescriptorSource> source);

    /// All methods, by service. Throws CtlError if they cannot be found out.
    std::vector<const google::protobuf::MethodDescriptor*> methods() const;

    /// The method whose full name ends with these components, separated by dots or slashes. Throws
    /// CtlError if there is none or more than one.
    const google::protobuf::MethodDescriptor& method(const std::string& suffix) const;

    /// The proto text of the service, method, message, enum or file with this name; of the first
    /// three also an unambiguous last part. Throws CtlError if there is none.
    std::string describe(const std::string& symbol) const;

    /// The message type with this full name, null if there is none.
    const google::protobuf::Descriptor* findMessage(const std::string& name) const;

    /// An empty message of the type.
    std::unique_ptr<google::protobuf::Message> make(const google::protobuf::Descriptor& type) const;

    /// The message in the value, null if its type is not known or its content is not of that type.
    std::unique_ptr<google::protobuf::Message> unpack(const google::protobuf::Any& value) const;

    /// The proto files read so far and those of the service.
    const google::protobuf::DescriptorPool& pool() const { return m_pool; }

    /// How the method is bound to the service's tree; of type RESERVED if it is not.
    static ObserverTree::ObsTreeOptions bindingOf(const google::protobuf::MethodDescriptor& method);

    /// The path of the method in a call, as in /pkg.Service/method.
    static std::string pathOf(const google::protobuf::MethodDescriptor& method);

private:
    std::string textOf(const std::string& symbol) const;

    std::unique_ptr<DescriptorSource> m_source;
    google::protobuf::DescriptorPool m_pool;
    mutable std::mutex m_mutex;
    mutable google::protobuf::DynamicMessageFactory m_factory;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Ctl
