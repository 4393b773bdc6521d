#pragma once

#include <gmock/gmock.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

namespace Hox::Testing {

/// Matches a message of the same type with the same fields; describes the fields that differ.
/// Implements EqualsProto.
class EqualsProtoMatcher {
public:
    /// Marks this class as a matcher for GoogleTest.
    using is_gtest_matcher = void;

    /// Keeps a copy of the message.
    explicit EqualsProtoMatcher(const google::protobuf::Message& expected);

    /// Whether the message is equal; writes the differences to the listener if not.
    bool MatchAndExplain(const google::protobuf::Message& actual,
                         ::testing::MatchResultListener* listener) const;
    /// Prints "equals", the type and the fields, on one line.
    void DescribeTo(std::ostream* out) const;
    /// Prints the same after "differs from".
    void DescribeNegationTo(std::ostream* out) const;

private:
    std::shared_ptr<const google::protobuf::Message> m_expected;
};

/// Matcher for messages; for smart pointers write Pointee(EqualsProto(expected)).
inline EqualsProtoMatcher EqualsProto(const google::protobuf::Message& expected) {
    return EqualsProtoMatcher(expected);
}

/// Builds a message from protobuf's text format; throws std::invalid_argument for an invalid text.
template <typename Msg>
Msg protoFromText(const std::string& text) {
    Msg message;
    if (!google::protobuf::TextFormat::ParseFromString(text, &message)) {
        throw std::invalid_argument("not a " + message.GetTypeName() + ": " + text);
    }
    return message;
}

}  // namespace Hox::Testing
