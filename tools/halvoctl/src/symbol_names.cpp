#include "symbol_names.h"

namespace Hox::Ctl {

void SymbolNames::addFile(const google::protobuf::FileDescriptor& file) {
    if (!m_files.insert(&file).second) {
        return;
    }
    for (int index = 0; index < file.service_count(); ++index) {
        const auto& service = *file.service(index);
        m_names.insert(service.full_name());
        for (int method = 0; method < service.method_count(); ++method) {
            m_names.insert(service.method(method)->full_name());
        }
    }
    for (int index = 0; index < file.enum_type_count(); ++index) {
        m_names.insert(file.enum_type(index)->full_name());
    }
    for (int index = 0; index < file.message_type_count(); ++index) {
        addMessage(*file.message_type(index));
    }
    for (int index = 0; index < file.dependency_count(); ++index) {
        addFile(*file.dependency(index));
    }
}

void SymbolNames::addMessage(const google::protobuf::Descriptor& message) {
    m_names.insert(message.full_name());
    for (int index = 0; index < message.enum_type_count(); ++index) {
        m_names.insert(message.enum_type(index)->full_name());
    }
    for (int index = 0; index < message.nested_type_count(); ++index) {
        addMessage(*message.nested_type(index));
    }
}

bool endsWithName(const std::string& name, const std::string& end) {
    if (name.size() <= end.size()) {
        return name == end;
    }
    const auto start = name.size() - end.size();
    return name[start - 1] == '.' && name.compare(start, end.size(), end) == 0;
}

}  // namespace Hox::Ctl
