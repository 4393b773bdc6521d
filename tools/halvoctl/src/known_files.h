#pragma once

#include <google/protobuf/descriptor_database.h>

#include <string>
#include <vector>

#include "descriptor_source.h"

namespace Hox::Ctl {

/// Proto files that are at hand.
class KnownFiles : public DescriptorSource {
public:
    /// Adds a file; nothing happens if it is there already.
    void add(const google::protobuf::FileDescriptorProto& file);

    /// The files in a file as `protoc --include_imports --descriptor_set_out` writes it. Throws
    /// CtlError if it cannot be read or is none.
    void addSet(const std::string& path);

    std::vector<std::string> services() override { return m_services; }
    void check() const override {}
    bool FindFileByName(const std::string& name,
                        google::protobuf::FileDescriptorProto* output) override;
    bool FindFileContainingSymbol(const std::string& symbol,
                                  google::protobuf::FileDescriptorProto* output) override;
    bool FindFileContainingExtension(const std::string& containingType, int number,
                                     google::protobuf::FileDescriptorProto* output) override;

private:
    google::protobuf::SimpleDescriptorDatabase m_files;
    std::vector<std::string> m_services;
};

}  // namespace Hox::Ctl
