#include "known_files.h"

#include <google/protobuf/descriptor.pb.h>

#include <fstream>

#include "ctl_error.h"

namespace Hox::Ctl {

using google::protobuf::FileDescriptorProto;

void KnownFiles::add(const FileDescriptorProto& file) {
    FileDescriptorProto known;
    if (m_files.FindFileByName(file.name(), &known)) {
        return;
    }
    m_files.Add(file);
    for (const auto& service : file.service()) {
        m_services.push_back((file.package().empty() ? "" : file.package() + ".") + service.name());
    }
}

void KnownFiles::addSet(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    google::protobuf::FileDescriptorSet set;
    if (!file) {
        throw CtlError(ExitCode::Usage, "cannot read the proto files in " + path);
    }
    if (!set.ParseFromIstream(&file)) {
        throw CtlError(ExitCode::Usage, path + " is no set of proto files",
                       "make it with protoc --include_imports --descriptor_set_out=FILE");
    }
    for (const auto& proto : set.file()) {
        add(proto);
    }
}

bool KnownFiles::FindFileByName(const std::string& name, FileDescriptorProto* output) {
    return m_files.FindFileByName(name, output);
}

bool KnownFiles::FindFileContainingSymbol(const std::string& symbol, FileDescriptorProto* output) {
    return m_files.FindFileContainingSymbol(symbol, output);
}

bool KnownFiles::FindFileContainingExtension(const std::string& containingType, int number,
                                             FileDescriptorProto* output) {
    return m_files.FindFileContainingExtension(containingType, number, output);
}

}  // namespace Hox::Ctl
