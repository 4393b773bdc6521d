#include "hox/observer_tree/persistence/value_text.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/message.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>

#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::ObserverTree {

using google::protobuf::Any;
using google::protobuf::BytesValue;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::Message;
using google::protobuf::StringValue;
using google::protobuf::Struct;
using google::protobuf::util::JsonStringToMessage;
using google::protobuf::util::MessageToJsonString;

namespace {

constexpr const char* typeMember = "@type";
constexpr const char* bytesMember = "@bytes";

/// False for any text that is no JSON form of the message; then the message is empty.
bool readJson(const std::string& text, Message& message) {
    try {
        if (JsonStringToMessage(text, &message).ok()) {
            return true;
        }
    } catch (const google::protobuf::FatalException&) {
        // Some texts, as a member after a wrapper's null, break a check of the parser itself.
    }
    message.Clear();
    return false;
}

/// Decides which message types JSON represents exactly, for all values of their fields.
class ExactTypes {
public:
    bool contain(const Descriptor& type) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return depthOf(type) > 0;
    }

private:
    /// The JSON parser fails beyond about 60 levels.
    static constexpr int maxDepth = 30;

    /// The nesting depth of messages of the type, 0 for a type that may lose data.
    int depthOf(const Descriptor& type) {
        // A type that occurs below itself may be nested without limit.
        const auto [known, isNew] = m_depths.try_emplace(&type, 0);
        if (isNew && isPlain(type)) {
            int depth = 1;
            for (int index = 0; index < type.field_count() && depth > 0; ++index) {
                const int below = depthBelow(*type.field(index));
                depth = below == 0 ? 0 : std::max(depth, below);
            }
            known->second = depth < maxDepth ? depth : 0;
        }
        return known->second;
    }

    /// Types with a special JSON form lose other data than plain types.
    static bool isPlain(const Descriptor& type) {
        const FileDescriptor& file = *type.file();
        const bool isOfLibrary = file.package() == "google.protobuf";
        return file.syntax() == FileDescriptor::SYNTAX_PROTO3 &&
               (!isOfLibrary || file.name() == StringValue::descriptor()->file()->name());
    }

    int depthBelow(const FieldDescriptor& field) {
        const auto type = field.cpp_type();
        if (field.is_map() || type == FieldDescriptor::CPPTYPE_DOUBLE ||
            type == FieldDescriptor::CPPTYPE_FLOAT || field.json_name()[0] == '@') {
            return 0;
        }
        if (type != FieldDescriptor::CPPTYPE_MESSAGE) {
            return 1;
        }
        const int depth = depthOf(*field.message_type());
        return depth == 0 ? 0 : depth + 1;
    }

    std::mutex m_mutex;
    std::map<const Descriptor*, int> m_depths;  // GUARDED_BY(m_mutex)
};

/// A packed message of a type that this program knows; null for any other value.
std::unique_ptr<Message> unpack(const Any& value) {
    std::string type;
    if (!Any::ParseAnyTypeUrl(value.type_url(), &type)) {
        return nullptr;
    }
    const auto* descriptor =
        google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(type);
    const auto* prototype =
        descriptor == nullptr
            ? nullptr
            : google::protobuf::MessageFactory::generated_factory()->GetPrototype(descriptor);
    if (prototype == nullptr) {
        return nullptr;
    }
    std::unique_ptr<Message> message(prototype->New());
    return message->ParseFromString(value.value()) ? std::move(message) : nullptr;
}

/// The same bytes for equal messages.
std::string serialized(const Message& message) {
    std::string bytes;
    google::protobuf::io::StringOutputStream stream(&bytes);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    message.SerializeToCodedStream(&coded);
    coded.Trim();
    return bytes;
}

/// Whether JSON represents the value exactly. A cheap check, which may return false although it
/// does.
bool isExact(const Any& value) {
    static ExactTypes exactTypes;
    const auto message = unpack(value);
    if (message == nullptr || !exactTypes.contain(*message->GetDescriptor())) {
        return false;
    }
    // Neither unknown fields nor an unusual order or repetition of fields survive JSON.
    message->DiscardUnknownFields();
    return message->SerializeAsString() == value.value();
}

bool isReadBack(const std::string& text, const Any& value) {
    Any copy;
    if (!valueFromText(text, copy) || copy.type_url() != value.type_url()) {
        return false;
    }
    const auto read = unpack(copy);
    const auto original = unpack(value);
    return read != nullptr && original != nullptr && serialized(*read) == serialized(*original);
}

/// The same text as jsonOf() in less than half of the time, for the most common kind of values;
/// empty for any other value.
std::string jsonOfText(const Any& value) {
    static const std::string type = "type.googleapis.com/" + StringValue::descriptor()->full_name();
    StringValue text;
    std::string json;
    if (value.type_url() == type && text.ParseFromString(value.value()) && !text.value().empty() &&
        text.GetReflection()->GetUnknownFields(text).empty() &&
        text.SerializeAsString() == value.value() && MessageToJsonString(text, &json).ok()) {
        return std::string("{\"") + typeMember + "\":\"" + type + "\",\"value\":" + json + "}";
    }
    return {};
}

/// Empty if JSON does not represent the value exactly.
std::string jsonOf(const Any& value) {
    std::string json;
    const bool isWritten = MessageToJsonString(value, &json).ok();
    return isWritten && (isExact(value) || isReadBack(json, value)) ? json : std::string();
}

std::string bytesFormOf(const Any& value) {
    StringValue type;
    type.set_value(value.type_url());
    BytesValue bytes;
    bytes.set_value(value.value());
    std::string typeJson;
    std::string bytesJson;
    static_cast<void>(MessageToJsonString(type, &typeJson));
    static_cast<void>(MessageToJsonString(bytes, &bytesJson));
    return std::string("{\"") + typeMember + "\":" + typeJson + ",\"" + bytesMember +
           "\":" + bytesJson + "}";
}

/// The members with a text of a JSON object. By reflection, in the library alone: under
/// ThreadSanitizer its headers give maps another layout than the library itself has.
std::map<std::string, std::string> textMembers(const Struct& object) {
    std::map<std::string, std::string> members;
    const auto* field = Struct::descriptor()->FindFieldByNumber(Struct::kFieldsFieldNumber);
    const auto* reflection = object.GetReflection();
    for (int index = 0; index < reflection->FieldSize(object, field); ++index) {
        const auto& entry = reflection->GetRepeatedMessage(object, field, index);
        const auto* key = field->message_type()->map_key();
        const auto* content = field->message_type()->map_value();
        const auto& member = entry.GetReflection()->GetMessage(entry, content);
        const auto& json = dynamic_cast<const google::protobuf::Value&>(member);
        if (json.has_string_value()) {
            members.emplace(entry.GetReflection()->GetString(entry, key), json.string_value());
        }
    }
    return members;
}

bool isFromBytesForm(const std::string& text, Any& value) {
    Struct members;
    if (text.find(bytesMember) == std::string::npos || !readJson(text, members)) {
        return false;
    }
    const auto texts = textMembers(members);
    const auto type = texts.find(typeMember);
    const auto base64 = texts.find(bytesMember);
    const auto* fields = Struct::descriptor()->FindFieldByNumber(Struct::kFieldsFieldNumber);
    if (members.GetReflection()->FieldSize(members, fields) != 2 || type == texts.end() ||
        base64 == texts.end()) {
        return false;
    }
    BytesValue bytes;
    if (!readJson('"' + base64->second + '"', bytes)) {
        return false;
    }
    value.set_type_url(type->second);
    value.set_value(bytes.value());
    return true;
}

}  // namespace

std::string textOfValue(const Any& value) {
    if (value.type_url().empty() && value.value().empty()) {
        return "{}";
    }
    // Without this, protobuf reports failed conversions on standard error.
    const google::protobuf::LogSilencer silencer;
    std::string text = jsonOfText(value);
    if (text.empty()) {
        text = jsonOf(value);
    }
    if (!text.empty()) {
        return text;
    }
    text = bytesFormOf(value);
    Any copy;
    if (!valueFromText(text, copy) || copy.SerializeAsString() != value.SerializeAsString()) {
        throw Hox::CppUtil::InvalidArgumentError("Value has a type that is no UTF-8", __FILE__,
                                                 __LINE__);
    }
    return text;
}

std::map<std::string, std::string> textMembersOf(const std::string& json) {
    const google::protobuf::LogSilencer silencer;
    Struct object;
    return readJson(json, object) ? textMembers(object) : std::map<std::string, std::string>();
}

bool valueFromText(const std::string& text, Any& value) {
    value.Clear();
    return isFromBytesForm(text, value) || readJson(text, value);
}

}  // namespace Hox::ObserverTree
