#include "service_model.h"

#include <google/protobuf/descriptor.pb.h>

#include <algorithm>
#include <utility>

#include "ctl_error.h"
#include "symbol_names.h"

namespace Hox::Ctl {

using google::protobuf::Descriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;

namespace {

std::string dotted(std::string name) {
    std::replace(name.begin(), name.end(), '/', '.');
    return !name.empty() && name.front() == '.' ? name.substr(1) : name;
}

CtlError ambiguous(const std::string& suffix, const std::vector<std::string>& names) {
    std::string text = "\"" + suffix + "\" is the end of several names:";
    for (const auto& name : names) {
        text += "\n  " + name;
    }
    return {ExitCode::Usage, text};
}

}  // namespace

ServiceModel::ServiceModel(std::unique_ptr<DescriptorSource> source)
    : m_source(std::move(source)), m_pool(m_source.get()), m_factory(&m_pool) {}

std::vector<const MethodDescriptor*> ServiceModel::methods() const {
    std::vector<const MethodDescriptor*> result;
    auto names = m_source->services();
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        const auto* service = m_pool.FindServiceByName(name);
        if (service == nullptr) {
            m_source->check();
            continue;  // listed without a description: nothing is known of it
        }
        for (int index = 0; index < service->method_count(); ++index) {
            result.push_back(service->method(index));
        }
    }
    return result;
}

const MethodDescriptor& ServiceModel::method(const std::string& suffix) const {
    const auto wanted = dotted(suffix);
    std::vector<const MethodDescriptor*> found;
    for (const auto* method : methods()) {
        if (method->full_name() == wanted) {
            return *method;
        }
        if (endsWithName(method->full_name(), wanted)) {
            found.push_back(method);
        }
    }
    if (found.empty()) {
        throw CtlError(ExitCode::Usage, "no method \"" + suffix + "\"",
                       "halvoctl services lists all methods");
    }
    if (found.size() > 1) {
        std::vector<std::string> names;
        for (const auto* method : found) {
            names.push_back(method->full_name());
        }
        throw ambiguous(suffix, names);
    }
    return *found.front();
}

std::string ServiceModel::textOf(const std::string& symbol) const {
    if (const auto* service = m_pool.FindServiceByName(symbol)) {
        return service->DebugString();
    }
    if (const auto* method = m_pool.FindMethodByName(symbol)) {
        return method->DebugString();
    }
    if (const auto* message = m_pool.FindMessageTypeByName(symbol)) {
        return message->DebugString();
    }
    if (const auto* enumeration = m_pool.FindEnumTypeByName(symbol)) {
        return enumeration->DebugString();
    }
    const auto* file = m_pool.FindFileByName(symbol);
    return file == nullptr ? "" : file->DebugString();
}

std::string ServiceModel::describe(const std::string& symbol) const {
    auto text = textOf(symbol);
    m_source->check();
    if (!text.empty()) {
        return text;
    }
    SymbolNames all;
    for (const auto* method : methods()) {
        all.addFile(*method->file());
    }
    std::vector<std::string> found;
    for (const auto& name : all.names()) {
        if (endsWithName(name, dotted(symbol))) {
            found.push_back(name);
        }
    }
    if (found.empty()) {
        throw CtlError(ExitCode::Usage, "nothing is called \"" + symbol + "\"");
    }
    if (found.size() > 1) {
        throw ambiguous(symbol, found);
    }
    return textOf(found.front());
}

const Descriptor* ServiceModel::findMessage(const std::string& name) const {
    return m_pool.FindMessageTypeByName(name);
}

std::unique_ptr<Message> ServiceModel::make(const Descriptor& type) const {
    const std::lock_guard lock(m_mutex);
    return std::unique_ptr<Message>(m_factory.GetPrototype(&type)->New());
}

std::unique_ptr<Message> ServiceModel::unpack(const google::protobuf::Any& value) const {
    const auto& url = value.type_url();
    const auto* type = findMessage(url.substr(url.rfind('/') + 1));
    if (type == nullptr) {
        return nullptr;
    }
    auto message = make(*type);
    return message->ParseFromString(value.value()) ? std::move(message) : nullptr;
}

ObserverTree::ObsTreeOptions ServiceModel::bindingOf(const MethodDescriptor& method) {
    // The options of a type that was built at run time do not know the extensions of this program.
    google::protobuf::MethodOptions options;
    options.ParseFromString(method.options().SerializeAsString());
    return options.GetExtension(ObserverTree::obs_tree_option);
}

std::string ServiceModel::pathOf(const MethodDescriptor& method) {
    return "/" + method.service()->full_name() + "/" + method.name();
}

}  // namespace Hox::Ctl
