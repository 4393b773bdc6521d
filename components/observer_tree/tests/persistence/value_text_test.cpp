#include "hox/observer_tree/persistence/value_text.h"

#include <gmock/gmock.h>
#include <google/protobuf/api.pb.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/type.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "obstree.pb.h"
#include "obstree_internals.pb.h"

namespace Hox::ObserverTree {
namespace {

using google::protobuf::Any;
using google::protobuf::DoubleValue;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::StringValue;
using ::testing::HasSubstr;

const std::string url = "type.googleapis.com/";

Any packed(const Message& message) {
    Any any;
    any.PackFrom(message);
    return any;
}

Any raw(const std::string& type, const std::string& bytes) {
    Any any;
    any.set_type_url(type);
    any.set_value(bytes);
    return any;
}

Any text(const std::string& content) {
    StringValue message;
    message.set_value(content);
    return packed(message);
}

/// The JSON that protobuf alone produces for the value.
std::string plainJson(const Any& value) {
    std::string json;
    EXPECT_TRUE(google::protobuf::util::MessageToJsonString(value, &json).ok());
    return json;
}

void expectReadBack(const Any& value) {
    Any copy;
    const std::string saved = textOfValue(value);
    EXPECT_TRUE(valueFromText(saved, copy)) << saved;
    EXPECT_EQ(copy.type_url(), value.type_url()) << saved;
    EXPECT_EQ(copy.value(), value.value()) << saved;
}

void expectJson(const Any& value) {
    EXPECT_EQ(textOfValue(value), plainJson(value));
    expectReadBack(value);
}

void expectBytes(const Any& value) {
    EXPECT_THAT(textOfValue(value), HasSubstr(R"(","@bytes":")"));
    expectReadBack(value);
}

/// Valid UTF-8 characters of every length.
std::string allCharacters() {
    std::string result;
    const auto append = [&result](unsigned byte) { result += static_cast<char>(byte); };
    for (unsigned code = 0; code < 0x110000U; ++code) {
        if (code >= 0xd800U && code < 0xe000U) {
            continue;
        }
        if (code < 0x80U) {
            append(code);
        } else if (code < 0x800U) {
            append(0xc0U | code >> 6U);
        } else if (code < 0x10000U) {
            append(0xe0U | code >> 12U);
            append(0x80U | (code >> 6U & 0x3fU));
        } else {
            append(0xf0U | code >> 18U);
            append(0x80U | (code >> 12U & 0x3fU));
            append(0x80U | (code >> 6U & 0x3fU));
        }
        if (code >= 0x80U) {
            append(0x80U | (code & 0x3fU));
        }
    }
    return result;
}

TEST(ValueText, IsTheJsonOfWhatJsonHolds) {
    EXPECT_EQ(textOfValue(text("some \"text\"")),
              R"({"@type":"type.googleapis.com/google.protobuf.StringValue",)"
              R"("value":"some \"text\""})");
    expectJson(text(""));
    expectJson(text(std::string(1000000, 'x')));
    expectJson(text(allCharacters()));
    expectJson(packed(text("a packed one")));
    expectJson(packed(google::protobuf::Struct()));
    expectJson(Any());
    for (const double number :
         {0.0, 0.1, -1e300, 5e-324, 3.0, std::nan(""), -std::numeric_limits<double>::infinity()}) {
        DoubleValue message;
        message.set_value(number);
        expectJson(packed(message));
    }
    google::protobuf::Struct record;
    (*record.mutable_fields())["a"].set_string_value("b");
    (*record.mutable_fields())["list"].mutable_list_value()->add_values()->set_bool_value(true);
    expectJson(packed(record));
}

TEST(ValueText, HoldsTheBytesOfATypeThatIsNotKnown) {
    EXPECT_EQ(textOfValue(raw(url + "No.Such.Type", "\xff\x01x")),
              R"({"@type":"type.googleapis.com/No.Such.Type","@bytes":"/wF4"})");
    EXPECT_EQ(textOfValue(raw("odd \"<type>\"", "")),
              R"({"@type":"odd \"\u003ctype\u003e\"","@bytes":""})");
    expectBytes(raw("", "x"));
    expectBytes(raw("example.com/google.protobuf.StringValue", text("x").value()));
    expectBytes(packed(raw(url + "No.Such.Type", "x")));
    std::string everyByte;
    for (int byte = 0; byte < 256; ++byte) {
        everyByte += static_cast<char>(byte);
        expectBytes(raw(url + "No.Such.Type", everyByte));
    }
}

/// The JSON form of each of these loses data.
TEST(ValueText, HoldsTheBytesOfWhatJsonWouldChange) {
    const std::string type = url + "google.protobuf.StringValue";
    const std::string unknownField("\x0a\x01x\x10\x05", 5);
    expectBytes(raw(type, unknownField));
    expectBytes(raw(type, "\x0a\x02\xff\xfe"));
    expectBytes(raw(type, std::string("\x0a\x05x", 3)));
    google::protobuf::Value value;
    value.set_number_value(std::nan(""));
    expectBytes(packed(value));
    google::protobuf::ListValue list;
    expectBytes(packed(list));
    list.add_values()->set_string_value("a");
    expectBytes(packed(list));
    google::protobuf::Timestamp time;
    time.set_nanos(-5);
    expectBytes(packed(time));
    DoubleValue zero;
    zero.set_value(-0.0);
    expectBytes(packed(zero));
    // Also nested in another message.
    ObsTreeDataNodePair pair;
    *pair.mutable_currentmessage() = raw(type, unknownField);
    expectBytes(packed(pair));
    *pair.mutable_currentmessage() = raw(url + "No.Such", "x");
    expectBytes(packed(pair));
    google::protobuf::Struct deep;
    auto* inner = &deep;
    for (int level = 0; level < 5000; ++level) {
        inner = (*inner->mutable_fields())["a"].mutable_struct_value();
    }
    expectBytes(packed(deep));
}

TEST(ValueText, IsTheJsonOfAnUnusualEncodingThatMeansTheSame) {
    const auto explicitDefault =
        raw(url + "google.protobuf.Int64Value", std::string("\x08\x00", 2));
    EXPECT_EQ(textOfValue(explicitDefault), plainJson(explicitDefault));
    // A message uses the last one, its JSON the first one.
    expectBytes(raw(url + "google.protobuf.StringValue", "\x0a\x01x\x0a\x01y"));
}

TEST(ValueText, OfATextThatLooksLikeBytesIsStillAText) {
    for (const char* lookalike : {R"({"@type":"a","@bytes":"eA=="})", R"(","@bytes":"eA==)",
                                  "@bytes", R"("@bytes")", R"(\","@bytes":")"}) {
        expectJson(text(lookalike));
        google::protobuf::Struct record;
        (*record.mutable_fields())["@bytes"].set_string_value(lookalike);
        (*record.mutable_fields())["@type"].set_string_value(lookalike);
        expectReadBack(packed(record));
        google::protobuf::Value value;
        *value.mutable_struct_value() = record;
        expectReadBack(packed(value));
    }
}

TEST(ValueText, IsReadInAnySpellingOfItsJson) {
    Any value;
    EXPECT_TRUE(valueFromText("{\n \"@bytes\" : \"eA\", \"@type\" : \"a\\u002fb\" }\n", value));
    EXPECT_EQ(value.type_url(), "a/b");
    EXPECT_EQ(value.value(), "x");
    EXPECT_TRUE(valueFromText(
        R"({"value":"x", "@type":")" + url + R"(google.protobuf.StringValue"})", value));
    EXPECT_EQ(value.SerializeAsString(), text("x").SerializeAsString());
}

TEST(ValueText, IsNothingElse) {
    for (const std::string& other :
         {std::string(), std::string("text"), std::string("{"), std::string("[]"),
          std::string(R"({"@type":"a","@bytes":"!"})"), std::string(R"({"@type":"a","@bytes":7})"),
          std::string(R"({"@bytes":"eA=="})"), std::string(R"({"@type":7,"@bytes":"eA=="})"),
          std::string(R"({"@type":"a","@bytes":"eA==","more":1})"),
          R"({"@type":")" + url + R"(No.Such","x":1})",
          R"({"@type":")" + url + R"(google.protobuf.StringValue","value":null,"more":1})",
          R"({"@type":")" + url + R"(google.protobuf.StringV)", std::string(100000, '[')}) {
        Any value = text("former");
        EXPECT_FALSE(valueFromText(other, value)) << other.substr(0, 100);
        EXPECT_EQ(value.ByteSizeLong(), 0U) << other.substr(0, 100);
    }
}

TEST(ValueText, HasMembers) {
    EXPECT_EQ(textMembersOf(R"({"a":"b","c":1,"d":{"e":"f"}})"),
              (std::map<std::string, std::string>{{"a", "b"}}));
    EXPECT_TRUE(textMembersOf("no object").empty());
}

TEST(ValueText, CannotHoldATypeThatIsNoUtf8) {
    EXPECT_THROW(textOfValue(raw("\xff", "x")), Hox::CppUtil::InvalidArgumentError);
}

/// Fills messages at random, including unknown numbers of enumerations.
class RandomMessages {
public:
    void fill(Message& message, int depth) {
        const auto& type = *message.GetDescriptor();
        for (int index = 0; index < type.field_count(); ++index) {
            const FieldDescriptor& field = *type.field(index);
            const bool isNested = field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE;
            if (pick(3) == 0 || (isNested && depth == 0)) {
                continue;
            }
            const auto& reflection = *message.GetReflection();
            for (std::size_t count = field.is_repeated() ? pick(4) : 1; count > 0; --count) {
                if (isNested) {
                    fill(field.is_repeated() ? *reflection.AddMessage(&message, &field)
                                             : *reflection.MutableMessage(&message, &field),
                         depth - 1);
                } else {
                    setScalar(message, field);
                }
            }
        }
    }

    std::size_t pick(std::size_t below) { return m_random() % below; }

private:
    template <typename Value>
    using Setter = void (Reflection::*)(Message*, const FieldDescriptor*, Value) const;

    template <typename Value>
    static void put(Message& message, const FieldDescriptor& field, Setter<Value> add,
                    Setter<Value> set, Value value) {
        (message.GetReflection()->*(field.is_repeated() ? add : set))(&message, &field,
                                                                      std::move(value));
    }

    void setScalar(Message& message, const FieldDescriptor& field) {
        using R = Reflection;
        const std::uint64_t number = m_numbers[pick(m_numbers.size())];
        const double real = m_doubles[pick(m_doubles.size())];
        switch (field.cpp_type()) {
            case FieldDescriptor::CPPTYPE_INT32:
                return put<std::int32_t>(message, field, &R::AddInt32, &R::SetInt32,
                                         static_cast<std::int32_t>(number));
            case FieldDescriptor::CPPTYPE_INT64:
                return put<std::int64_t>(message, field, &R::AddInt64, &R::SetInt64,
                                         static_cast<std::int64_t>(number));
            case FieldDescriptor::CPPTYPE_UINT32:
                return put<std::uint32_t>(message, field, &R::AddUInt32, &R::SetUInt32,
                                          static_cast<std::uint32_t>(number));
            case FieldDescriptor::CPPTYPE_UINT64:
                return put<std::uint64_t>(message, field, &R::AddUInt64, &R::SetUInt64, number);
            case FieldDescriptor::CPPTYPE_DOUBLE:
                return put<double>(message, field, &R::AddDouble, &R::SetDouble, real);
            case FieldDescriptor::CPPTYPE_FLOAT:
                return put<float>(message, field, &R::AddFloat, &R::SetFloat,
                                  static_cast<float>(real));
            case FieldDescriptor::CPPTYPE_BOOL:
                return put<bool>(message, field, &R::AddBool, &R::SetBool, number % 2 == 0);
            case FieldDescriptor::CPPTYPE_ENUM:
                return put<int>(message, field, &R::AddEnumValue, &R::SetEnumValue,
                                static_cast<int>(number));
            case FieldDescriptor::CPPTYPE_STRING:
                return put<std::string>(message, field, &R::AddString, &R::SetString,
                                        m_strings[pick(m_strings.size())]);
            case FieldDescriptor::CPPTYPE_MESSAGE:
                return;
        }
    }

    const std::vector<std::uint64_t> m_numbers = {
        0, 1, 2, 77, 0x7fffffffU, 0x80000000U, 0xffffffffU, 1ULL << 53U, ~0ULL, 1ULL << 63U};
    const std::vector<double> m_doubles = {0, -0.0, 1, 0.1, -1e22, 5e-324, std::nan("")};
    const std::vector<std::string> m_strings = {"", "a", "\xc3\xa4\n\"\\", std::string("\0", 1),
                                                "google.protobuf.StringValue"};
    std::mt19937 m_random{42};
};

/// The fast path, which does not read the JSON back, is correct for the types that use it.
TEST(ValueText, IsReadBackForMessagesOfManyTypes) {
    RandomMessages random;
    std::vector<const Message*> types = {&StringValue::default_instance(),
                                         &google::protobuf::BytesValue::default_instance(),
                                         &google::protobuf::Api::default_instance(),
                                         &google::protobuf::Type::default_instance(),
                                         &google::protobuf::Struct::default_instance(),
                                         &google::protobuf::ListValue::default_instance(),
                                         &DoubleValue::default_instance(),
                                         &ProtoStatus::default_instance(),
                                         &ObserveReq::default_instance(),
                                         &RegExObserveReq::default_instance(),
                                         &ReadDataTreeReq::default_instance(),
                                         &UpdateDataTreeReq::default_instance(),
                                         &UpdateDataTreeResp::default_instance(),
                                         &ObsTreeDataNodePair::default_instance(),
                                         &ObsTreeObserveChangeSet::default_instance()};
    for (int round = 0; round < 100; ++round) {
        for (const auto* type : types) {
            const std::unique_ptr<Message> message(type->New());
            random.fill(*message, 4);
            // Reflection appends, so a map may have a key twice.
            ASSERT_TRUE(message->ParseFromString(message->SerializeAsString()));
            const Any value = packed(*message);
            const std::string saved = textOfValue(value);
            Any copy;
            ASSERT_TRUE(valueFromText(saved, copy)) << saved;
            const std::unique_ptr<Message> read(type->New());
            ASSERT_TRUE(copy.UnpackTo(read.get())) << saved;
            // Maps have no order, and the text form shows each number exactly.
            ASSERT_EQ(read->DebugString(), message->DebugString()) << saved;
        }
    }
}

}  // namespace
}  // namespace Hox::ObserverTree
