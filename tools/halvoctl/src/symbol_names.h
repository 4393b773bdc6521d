#pragma once

#include <google/protobuf/descriptor.h>

#include <set>
#include <string>

namespace Hox::Ctl {

/// The full names of all that is declared in some proto files and their imports: services, methods,
/// messages and enums.
class SymbolNames {
public:
    /// Adds the names in the file, unless it has been added.
    void addFile(const google::protobuf::FileDescriptor& file);

    /// All names so far.
    const std::set<std::string>& names() const { return m_names; }

private:
    void addMessage(const google::protobuf::Descriptor& message);

    std::set<const google::protobuf::FileDescriptor*> m_files;
    std::set<std::string> m_names;
};

/// Whether the last components of the full name, separated by dots, are these.
bool endsWithName(const std::string& name, const std::string& end);

}  // namespace Hox::Ctl
