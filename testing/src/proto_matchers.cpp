#include "hox/testing/proto_matchers.h"

#include <google/protobuf/util/message_differencer.h>

namespace Hox::Testing {

EqualsProtoMatcher::EqualsProtoMatcher(const google::protobuf::Message& expected) {
    std::shared_ptr<google::protobuf::Message> copy(expected.New());
    copy->CopyFrom(expected);
    m_expected = std::move(copy);
}

bool EqualsProtoMatcher::MatchAndExplain(const google::protobuf::Message& actual,
                                         ::testing::MatchResultListener* listener) const {
    if (actual.GetDescriptor() != m_expected->GetDescriptor()) {
        *listener << "which is a " << actual.GetTypeName();
        return false;
    }
    std::string differences;
    google::protobuf::util::MessageDifferencer differencer;
    differencer.ReportDifferencesToString(&differences);
    if (differencer.Compare(*m_expected, actual)) {
        return true;
    }
    *listener << "with these differences:\n" << differences;
    return false;
}

void EqualsProtoMatcher::DescribeTo(std::ostream* out) const {
    *out << "equals " << m_expected->GetTypeName() << " { " << m_expected->ShortDebugString()
         << " }";
}

void EqualsProtoMatcher::DescribeNegationTo(std::ostream* out) const {
    *out << "differs from " << m_expected->GetTypeName() << " { " << m_expected->ShortDebugString()
         << " }";
}

}  // namespace Hox::Testing
