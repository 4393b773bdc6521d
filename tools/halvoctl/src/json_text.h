#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/type_resolver.h>

#include <memory>
#include <string>

namespace Hox::Ctl {

/// Messages as JSON: names as in the proto file, default values printed.
///
/// A packed value whose type is not known, or that JSON cannot represent, becomes
/// {"@type": ..., "base64": ...}; so does a whole message that JSON cannot represent.
class JsonText {
public:
    /// Types are looked for in the pool, which must outlive this object, and among those of this
    /// program.
    explicit JsonText(const google::protobuf::DescriptorPool& pool);
    ~JsonText();
    JsonText(const JsonText&) = delete;
    JsonText& operator=(const JsonText&) = delete;

    /// On one line.
    std::string line(const google::protobuf::Message& message) const;

    /// On several lines, the last of which ends with a line feed.
    std::string indented(const google::protobuf::Message& message) const;

private:
    std::string convert(const google::protobuf::Message& message, bool isIndented) const;

    std::unique_ptr<google::protobuf::util::TypeResolver> m_types;
};

}  // namespace Hox::Ctl
