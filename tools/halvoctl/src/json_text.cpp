#include "json_text.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/type.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/type_resolver_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

namespace Hox::Ctl {

using google::protobuf::Any;
using google::protobuf::DescriptorPool;
using google::protobuf::Message;
using google::protobuf::util::JsonPrintOptions;
using google::protobuf::util::NewTypeResolverForDescriptorPool;
using google::protobuf::util::TypeResolver;

namespace {

constexpr auto urlPrefix = "type.googleapis.com";

std::string urlOf(const std::string& typeName) {
    return std::string(urlPrefix) + "/" + typeName;
}

/// Resolves types by their name alone, whatever comes before it in the URL. Keeps what it has
/// found: each conversion asks for its types again. Callable from any thread.
class Types : public TypeResolver {
public:
    using Status = google::protobuf::util::Status;

    explicit Types(const DescriptorPool& pool)
        : m_own(NewTypeResolverForDescriptorPool(urlPrefix, DescriptorPool::generated_pool())),
          m_foreign(NewTypeResolverForDescriptorPool(urlPrefix, &pool)) {}

    Status ResolveMessageType(const std::string& url, google::protobuf::Type* type) override {
        const auto known = urlOf(url.substr(url.rfind('/') + 1));
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_found.find(known);
        if (found != m_found.end()) {
            *type = found->second;
            return {};
        }
        auto status = m_foreign->ResolveMessageType(known, type);
        if (!status.ok()) {
            status = m_own->ResolveMessageType(known, type);
        }
        if (status.ok()) {
            m_found.emplace(known, *type);
        }
        return status;
    }

    Status ResolveEnumType(const std::string& url, google::protobuf::Enum* type) override {
        const auto status = m_foreign->ResolveEnumType(url, type);
        return status.ok() ? status : m_own->ResolveEnumType(url, type);
    }

private:
    std::unique_ptr<TypeResolver> m_own;
    std::unique_ptr<TypeResolver> m_foreign;
    std::mutex m_mutex;
    std::map<std::string, google::protobuf::Type> m_found;  // by URL. GUARDED_BY(m_mutex)
};

/// Resolves the given URLs to a type with the field "base64" only, and all others as before.
class OpaqueTypes : public TypeResolver {
public:
    using Status = google::protobuf::util::Status;

    OpaqueTypes(TypeResolver& others, std::set<std::string> urls)
        : m_others(others), m_urls(std::move(urls)) {}

    Status ResolveMessageType(const std::string& url, google::protobuf::Type* type) override {
        if (m_urls.count(url) == 0) {
            return m_others.ResolveMessageType(url, type);
        }
        type->set_name(url.substr(url.rfind('/') + 1));
        type->set_syntax(google::protobuf::SYNTAX_PROTO3);
        auto& field = *type->add_fields();
        field.set_kind(google::protobuf::Field::TYPE_BYTES);
        field.set_cardinality(google::protobuf::Field::CARDINALITY_OPTIONAL);
        field.set_number(1);
        field.set_name("base64");
        field.set_json_name("base64");
        return {};
    }

    Status ResolveEnumType(const std::string& url, google::protobuf::Enum* type) override {
        return m_others.ResolveEnumType(url, type);
    }

private:
    TypeResolver& m_others;
    std::set<std::string> m_urls;
};

std::optional<std::string> tryConvert(TypeResolver& types, const std::string& url,
                                      const std::string& bytes, bool isIndented) {
    JsonPrintOptions options;
    options.add_whitespace = isIndented;
    options.always_print_primitive_fields = true;
    options.preserve_proto_field_names = true;
    std::string text;
    const auto status =
        google::protobuf::util::BinaryToJsonString(&types, url, bytes, &text, options);
    return status.ok() ? std::optional(std::move(text)) : std::nullopt;
}

/// Replaces the bytes of all packed values that cannot be converted by a message with one field
/// that holds them, and collects their URLs.
class ValueWrapper {
public:
    explicit ValueWrapper(TypeResolver& types) : m_types(types) {}

    void wrapIn(Message& message) {
        const auto& reflection = *message.GetReflection();
        std::vector<const google::protobuf::FieldDescriptor*> fields;
        reflection.ListFields(message, &fields);
        for (const auto* field : fields) {
            if (field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE) {
                continue;
            }
            if (!field->is_repeated()) {
                visit(*reflection.MutableMessage(&message, field));
                continue;
            }
            for (int index = 0; index < reflection.FieldSize(message, field); ++index) {
                visit(*reflection.MutableRepeatedMessage(&message, field, index));
            }
        }
    }

    const std::set<std::string>& urls() const { return m_urls; }

    /// A message whose field 1 are the bytes.
    static std::string wrapped(const std::string& bytes) {
        google::protobuf::BytesValue carrier;
        carrier.set_value(bytes);
        return carrier.SerializeAsString();
    }

private:
    void visit(Message& message) {
        if (message.GetDescriptor()->full_name() != Any::descriptor()->full_name()) {
            wrapIn(message);
            return;
        }
        Any value;
        value.ParsePartialFromString(message.SerializePartialAsString());
        if (value.ByteSizeLong() == 0 || tryConvert(m_types, urlOf(Any::descriptor()->full_name()),
                                                    value.SerializeAsString(), false)) {
            return;
        }
        if (value.type_url().empty()) {
            value.set_type_url("unknown");
        }
        value.set_value(wrapped(value.value()));
        m_urls.insert(value.type_url());
        message.ParsePartialFromString(value.SerializePartialAsString());
    }

    TypeResolver& m_types;
    std::set<std::string> m_urls;
};

}  // namespace

JsonText::JsonText(const DescriptorPool& pool) : m_types(std::make_unique<Types>(pool)) {}

JsonText::~JsonText() = default;

std::string JsonText::convert(const Message& message, bool isIndented) const {
    const auto url = urlOf(message.GetDescriptor()->full_name());
    auto text = tryConvert(*m_types, url, message.SerializePartialAsString(), isIndented);
    if (text) {
        return *text;
    }
    const std::unique_ptr<Message> copy(message.New());
    copy->CopyFrom(message);
    ValueWrapper wrapper(*m_types);
    wrapper.wrapIn(*copy);
    OpaqueTypes types(*m_types, wrapper.urls());
    text = tryConvert(types, url, copy->SerializePartialAsString(), isIndented);
    if (text) {
        return *text;
    }
    OpaqueTypes nothingKnown(*m_types, {url});
    Any whole;
    whole.set_type_url(url);
    whole.set_value(ValueWrapper::wrapped(message.SerializePartialAsString()));
    return tryConvert(nothingKnown, urlOf(Any::descriptor()->full_name()),
                      whole.SerializePartialAsString(), isIndented)
        .value_or("{}");
}

std::string JsonText::line(const Message& message) const {
    return convert(message, false);
}

std::string JsonText::indented(const Message& message) const {
    return convert(message, true);
}

}  // namespace Hox::Ctl
