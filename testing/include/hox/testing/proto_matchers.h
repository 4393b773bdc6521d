#pragma once

#include <gmock/gmock.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

namespace Hox::Testing {

/// Matches a message of the same type with the same fields; says in which fields another differs.
/// Stands behind EqualsProto.
class EqualsProtoMatcher {
public:
    using is_gtest_matcher = void;

    explicit EqualsProtoMatcher(const google::protobuf::Message& expected);

    bool MatchAndExplain(const google::protobuf::Message& actual,
                         ::testing::MatchResultListener* listener) const;
    void DescribeTo(std::ostream* out) const;
    void DescribeNegationTo(std::ostream* out) const;

private:
    std::shared_ptr<const google::protobuf::Message> m_expected;
};

/// Matcher for messages; for smart pointers write Pointee(EqualsProto(expected)).
inline EqualsProtoMatcher EqualsProto(const google::protobuf::Message& expected) {
    return EqualsProtoMatcher(expected);
}

/// Builds a message from protobuf's text format; throws std::invalid_argument for a bad text.
template <typename Msg>
Msg protoFromText(const std::string& text) {
    Msg message;
    if (!google::protobuf::TextFormat::ParseFromString(text, &message)) {
        throw std::invalid_argument("not a " + message.GetTypeName() + ": " + text);
    }
    return message;
}

}  // namespace Hox::Testing
