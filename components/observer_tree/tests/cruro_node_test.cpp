#include "hox/observer_tree/cruro_node.h"

#include "hox/testing/assertion_reports.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::AssertionReports;
using Hox::Testing::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::Int64Value;
using TestKit::message;
using TestKit::number;
using TestKit::StringValue;
using TestKit::textOf;
using TestKit::thrownBy;
using TestKit::value;

UnaryHandlerReturnType<Int64Value> answer(int64_t content, const Status& status = Status()) {
    return {std::make_unique<Int64Value>(number(content)), status};
}

/// A node whose READ handler of StringValue -> Int64Value is set by each test.
class UnaryNode : public testing::Test {
protected:
    void onRead(UnaryHandler<StringValue, Int64Value> handler) {
        m_node->setUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(std::move(handler));
    }

    UnaryHandlerReturnType<Int64Value> read(const std::string& text) {
        return m_node->callUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(message(text),
                                                                                 m_tree);
    }

    UnaryHandlerReturnType<BaseMsgType> readCast(const BaseMsgType& request) {
        return m_node->callUnaryHandlerCast<UnaryOps::READ>(request, m_tree);
    }

    std::vector<std::string> errors() const { return m_log.textsAt(spdlog::level::err); }

    LogCapture m_log;
    DataTree m_tree;
    std::shared_ptr<TreeNode> m_node = std::make_shared<TreeNode>();
};

TEST_F(UnaryNode, HasNoHandlersAtFirst) {
    for (int operation = 0; operation < 4; ++operation) {
        EXPECT_FALSE(m_node->hasUnaryHandler(static_cast<UnaryOps>(operation)));
    }
    onRead([](const StringValue&, DataTree&) { return answer(1); });
    EXPECT_TRUE(m_node->hasUnaryHandler(UnaryOps::READ));
    EXPECT_FALSE(m_node->hasUnaryHandler(UnaryOps::CREATE));
    EXPECT_FALSE(m_node->hasUnaryHandler(UnaryOps::UPDATE));
    EXPECT_FALSE(m_node->hasUnaryHandler(UnaryOps::REMOVE));
}

TEST_F(UnaryNode, HandsOnRequestTreeAndResult) {
    onRead([](const StringValue& request, DataTree& tree) {
        tree.insert_or_assign("/", value(request.value()));
        return answer(5, Status(ProtoStatus::NOT_FOUND, "half"));
    });
    const auto result = read("text");
    EXPECT_EQ(result.message->value(), 5);
    EXPECT_EQ(result.status.statusCode(), ProtoStatus::NOT_FOUND);
    EXPECT_EQ(result.status.errorMessage(), "half");
    EXPECT_EQ(textOf(m_tree.find("/")->second), "text");
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(UnaryNode, ServesTheSameHandlerByDescriptor) {
    onRead([](const StringValue& request, DataTree&) {
        return answer(static_cast<int64_t>(request.value().size()),
                      Status(ProtoStatus::ABORTED, "why"));
    });
    const auto result = readCast(message("four"));
    EXPECT_EQ(dynamic_cast<const Int64Value&>(*result.message).value(), 4);
    EXPECT_EQ(result.status.statusCode(), ProtoStatus::ABORTED);
    EXPECT_EQ(result.status.errorMessage(), "why");
}

TEST_F(UnaryNode, LetsAHandlerEmptyOnlyARequestThatIsGivenOver) {
    std::vector<std::string> taken;
    m_node->setUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(
        [&taken](StringValue&& request, DataTree&) {
            taken.push_back(std::move(*request.mutable_value()));
            request.clear_value();
            return answer(7, Status(ProtoStatus::ABORTED, "why"));
        });
    auto request = message("text");
    EXPECT_EQ((m_node->callUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(request, m_tree))
                  .message->value(),
              7);
    const auto copied = readCast(request);
    EXPECT_EQ(dynamic_cast<const Int64Value&>(*copied.message).value(), 7);
    EXPECT_EQ(request.value(), "text");
    const auto given = m_node->callUnaryHandlerCast<UnaryOps::READ>(std::move(request), m_tree);
    EXPECT_EQ(dynamic_cast<const Int64Value&>(*given.message).value(), 7);
    EXPECT_EQ(given.status.errorMessage(), "why");
    EXPECT_EQ(request.value(), "");  // NOLINT(bugprone-use-after-move)
    EXPECT_THAT(taken, ElementsAre("text", "text", "text"));
}

TEST_F(UnaryNode, LogsTheTypeAloneOfARequestThatAFailedHandlerHasTakenOver) {
    const AssertionReports reports;
    m_node->setUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(
        [](StringValue&& request, DataTree&) -> UnaryHandlerReturnType<Int64Value> {
            StringValue taken;
            taken.Swap(&request);
            throw std::runtime_error("boom");
        });
    EXPECT_THROW(m_node->callUnaryHandlerCast<UnaryOps::READ>(message("text"), m_tree),
                 std::runtime_error);
    EXPECT_THAT(errors(), ElementsAre("It is forbidden to throw exceptions from crur handler "
                                      "callbacks - boom",
                                      "msg: google.protobuf.StringValue, taken over by its "
                                      "handler"));
    m_log.clear();
    EXPECT_THROW(readCast(message("text")), std::runtime_error);
    EXPECT_THAT(errors(), ElementsAre(testing::_, "msg: value: \"text\"\n"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false", "false"));
}

UnaryHandlerReturnType<Int64Value> sizeOf(const StringValue& request, DataTree& /*tree*/) {
    return answer(static_cast<int64_t>(request.value().size()));
}

UnaryHandlerReturnType<Int64Value> takenSizeOf(StringValue&& request, DataTree& /*tree*/) {
    StringValue taken;
    taken.Swap(&request);
    return answer(static_cast<int64_t>(taken.value().size()));
}

/// The rest of a request that is handed over to the handler. Also checks that the handler answers
/// the size, for a request that its caller keeps as well.
template <typename Handler>
std::string leftBy(Handler handler) {
    TreeNode node;
    DataTree tree;
    node.setUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(handler);
    auto request = message("four");
    const auto typed =
        node.callUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(request, tree);
    EXPECT_EQ(typed.message->value(), 4);
    EXPECT_EQ(request.value(), "four");
    const auto cast = node.callUnaryHandlerCast<UnaryOps::READ>(std::move(request), tree);
    EXPECT_EQ(dynamic_cast<const Int64Value&>(*cast.message).value(), 4);
    return request.value();  // NOLINT(bugprone-use-after-move)
}

TEST_F(UnaryNode, SeesByTheParameterWhetherAHandlerTakesItsRequestOver) {
    using testing::_;
    using Result = UnaryHandlerReturnType<Int64Value>;
    EXPECT_EQ(leftBy(sizeOf), "four");
    EXPECT_EQ(leftBy(UnaryHandler<StringValue, Int64Value>(sizeOf)), "four");
    EXPECT_EQ(leftBy(std::bind(sizeOf, std::placeholders::_1, std::placeholders::_2)), "four");
    EXPECT_EQ(leftBy([](const auto& request, DataTree& tree) { return sizeOf(request, tree); }),
              "four");
    EXPECT_EQ(leftBy([](StringValue request, DataTree& tree) { return sizeOf(request, tree); }),
              "four");
    EXPECT_EQ(leftBy([calls = 0](const StringValue& request, DataTree& tree) mutable {
                  ++calls;
                  return sizeOf(request, tree);
              }),
              "four");

    EXPECT_EQ(leftBy(takenSizeOf), "");
    EXPECT_EQ(leftBy(std::function<Result(StringValue&&, DataTree&)>(takenSizeOf)), "");
    EXPECT_EQ(leftBy([calls = 0](StringValue&& request, DataTree& tree) mutable {
                  ++calls;
                  return takenSizeOf(std::move(request), tree);
              }),
              "");
}

TEST_F(UnaryNode, TakesAndGivesTheMessageAsTheUsualPointer) {
    onRead([](const StringValue&, DataTree&) -> UnaryHandlerReturnType<Int64Value> {
        std::unique_ptr<Int64Value> made = std::make_unique<Int64Value>(number(1));
        UnaryHandlerReturnType<Int64Value> result;
        result.message = std::move(made);
        return result;
    });
    const std::unique_ptr<Int64Value> taken = read("").message;
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(taken->value(), 1);
    const std::unique_ptr<BaseMsgType> base = read("").message;
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(base->DebugString(), "value: 1\n");
    std::unique_ptr<BaseMsgType> cast;
    cast = readCast(message("")).message;
    ASSERT_NE(cast, nullptr);
    EXPECT_EQ(cast->DebugString(), "value: 1\n");
    const std::shared_ptr<const BaseMsgType> shared = read("").message;
    ASSERT_NE(shared, nullptr);
}

TEST_F(UnaryNode, GivesARequestOverToAHandlerThatOnlyReads) {
    onRead([](const StringValue& request, DataTree&) {
        return answer(static_cast<int64_t>(request.value().size()));
    });
    auto request = message("four");
    const auto result = m_node->callUnaryHandlerCast<UnaryOps::READ>(std::move(request), m_tree);
    EXPECT_EQ(dynamic_cast<const Int64Value&>(*result.message).value(), 4);
    EXPECT_EQ(request.value(), "four");  // NOLINT(bugprone-use-after-move)
}

TEST_F(UnaryNode, KeepsTheFirstHandlerAlsoAgainstOneThatTakesItsRequestOver) {
    onRead([](const StringValue&, DataTree&) { return answer(1); });
    EXPECT_THROW((m_node->setUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(
                     [](StringValue&&, DataTree&) { return answer(2); })),
                 DoubleRegistrationError);
    const auto result = m_node->callUnaryHandlerCast<UnaryOps::READ>(message(""), m_tree);
    EXPECT_EQ(dynamic_cast<const Int64Value&>(*result.message).value(), 1);
}

TEST_F(UnaryNode, FailsForAnotherMessageTypeThatIsGivenOver) {
    const AssertionReports reports;
    m_node->setUnaryHandler<UnaryOps::READ, StringValue, Int64Value>(
        [](StringValue&&, DataTree&) { return answer(1); });
    EXPECT_THROW(m_node->callUnaryHandlerCast<UnaryOps::READ>(number(3), m_tree), std::bad_cast);
    EXPECT_THAT(errors(), ElementsAre("It is forbidden to throw exceptions from crur handler "
                                      "callbacks - std::bad_cast",
                                      "msg: value: 3\n"));
}

TEST_F(UnaryNode, MayAnswerWithoutAMessage) {
    onRead([](const StringValue&, DataTree&) {
        return UnaryHandlerReturnType<Int64Value>{nullptr, Status(ProtoStatus::INTERNAL, "none")};
    });
    EXPECT_EQ(read("").message, nullptr);
    EXPECT_EQ(readCast(message("")).message, nullptr);
}

template <UnaryOps OpId>
std::string doubleRegistration(const std::string& name) {
    TreeNode node;
    DataTree tree;
    const auto handler = [](int64_t content) {
        return [content](const StringValue&, DataTree&) { return answer(content); };
    };
    node.setUnaryHandler<OpId, StringValue, Int64Value>(handler(1));
    auto text = thrownBy<DoubleRegistrationError>(
        [&] { node.setUnaryHandler<OpId, StringValue, Int64Value>(handler(2)); }, "cruro_node.h");
    const auto& typed = node.callUnaryHandler<OpId, StringValue, Int64Value>(message(""), tree);
    EXPECT_EQ(typed.message->value(), 1) << name;
    const auto& cast = node.callUnaryHandlerCast<OpId>(message(""), tree);
    EXPECT_EQ(dynamic_cast<const Int64Value&>(*cast.message).value(), 1) << name;
    return text;
}

TEST_F(UnaryNode, KeepsTheFirstHandlerOfAnOperation) {
    const std::string start = "Only one registration is allowed: Only allowed to register one ";
    EXPECT_EQ(doubleRegistration<UnaryOps::CREATE>("CREATE"), start + "CREATEoperation.\n");
    EXPECT_EQ(doubleRegistration<UnaryOps::READ>("READ"), start + "READoperation.\n");
    EXPECT_EQ(doubleRegistration<UnaryOps::UPDATE>("UPDATE"), start + "UPDATEoperation.\n");
    EXPECT_EQ(doubleRegistration<UnaryOps::REMOVE>("REMOVE"), start + "REMOVEoperation.\n");
}

TEST_F(UnaryNode, RefusesASecondHandlerOfOtherTypesToo) {
    onRead([](const StringValue&, DataTree&) { return answer(1); });
    EXPECT_THROW((m_node->setUnaryHandler<UnaryOps::READ, Int64Value, StringValue>(
                     [](const Int64Value&, DataTree&) -> UnaryHandlerReturnType<StringValue> {
                         return {};
                     })),
                 DoubleRegistrationError);
    EXPECT_EQ(read("").message->value(), 1);
}

TEST_F(UnaryNode, LogsAssertsAndRethrowsAnExceptionOfTheHandler) {
    const AssertionReports reports;
    onRead([](const StringValue&, DataTree&) -> UnaryHandlerReturnType<Int64Value> {
        throw std::runtime_error("boom");
    });
    EXPECT_EQ(thrownBy<std::runtime_error>([&] { read("request"); }), "boom");
    EXPECT_THAT(errors(), ElementsAre("Caught exception in Observer Tree CRUR Callback:\n"
                                      "Operation READ: google::protobuf::StringValue -> "
                                      "google::protobuf::Int64Value\nboom",
                                      "msg: value: \"request\"\n"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(UnaryNode, LogsAssertsAndRethrowsAnExceptionOfTheHandlerByDescriptor) {
    const AssertionReports reports;
    onRead([](const StringValue&, DataTree&) -> UnaryHandlerReturnType<Int64Value> {
        throw std::runtime_error("boom {}");
    });
    EXPECT_EQ(thrownBy<std::runtime_error>([&] { readCast(message("request")); }), "boom {}");
    EXPECT_THAT(errors(),
                ElementsAre("It is forbidden to throw exceptions from crur handler callbacks - "
                            "boom {}",
                            "msg: value: \"request\"\n"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(UnaryNode, FailsForOtherMessageTypesThanTheRegisteredOnes) {
    const AssertionReports reports;
    onRead([](const StringValue&, DataTree&) { return answer(1); });
    EXPECT_THROW(
        (m_node->callUnaryHandler<UnaryOps::READ, Int64Value, Int64Value>(number(3), m_tree)),
        std::bad_any_cast);
    EXPECT_THROW(
        (m_node->callUnaryHandler<UnaryOps::READ, StringValue, StringValue>(message("m"), m_tree)),
        std::bad_any_cast);
    EXPECT_THAT(errors(), ElementsAre("Caught exception in Observer Tree CRUR Callback:\n"
                                      "Operation READ: google::protobuf::Int64Value -> "
                                      "google::protobuf::Int64Value\nbad any_cast",
                                      "msg: value: 3\n",
                                      "Caught exception in Observer Tree CRUR Callback:\n"
                                      "Operation READ: google::protobuf::StringValue -> "
                                      "google::protobuf::StringValue\nbad any_cast",
                                      "msg: value: \"m\"\n"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false", "false"));
}

TEST_F(UnaryNode, FailsForAnotherMessageTypeByDescriptor) {
    const AssertionReports reports;
    onRead([](const StringValue&, DataTree&) { return answer(1); });
    EXPECT_THROW(readCast(number(3)), std::bad_cast);
    EXPECT_THAT(errors(),
                ElementsAre("It is forbidden to throw exceptions from crur handler callbacks - "
                            "std::bad_cast",
                            "msg: value: 3\n"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(UnaryNode, FailsForAnOperationWithoutAHandler) {
    const AssertionReports reports;
    EXPECT_THROW(read("m"), std::bad_any_cast);
    EXPECT_THROW(readCast(message("m")), std::bad_function_call);
    EXPECT_THAT(reports.conditions(), ElementsAre("false", "false"));
}

TEST_F(UnaryNode, TreatsAForbiddenWriteLikeAnyException) {
    const AssertionReports reports;
    onRead([](const StringValue&, DataTree& tree) {
        tree.insert_or_assign("/elsewhere", value("x"));
        return answer(1);
    });
    m_tree.setKeyPattern("/a");
    EXPECT_THROW(read("m"), AccessViolationError);
    EXPECT_THAT(errors(), testing::Contains(testing::HasSubstr(
                              "Not allowed to access \"/elsewhere\" with key pattern \"a/**\"")));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(UnaryNode, LetsWhatIsNoStandardExceptionThrough) {
    const AssertionReports reports;
    onRead([](const StringValue&, DataTree&) -> UnaryHandlerReturnType<Int64Value> { throw 7; });
    EXPECT_THROW(read("m"), int);
    EXPECT_THROW(readCast(message("m")), int);
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(reports.conditions(), IsEmpty());
}

TEST_F(UnaryNode, LogsUnderTheNameOfItsHeaderAndClass) {
    const std::string name = "cruro_node.h::Hox::ObserverTree::CRURONode";
    EXPECT_EQ(m_node->_HALVOMACRO_loggerName(), name);
    const AssertionReports reports;
    EXPECT_THROW(readCast(message("m")), std::bad_function_call);
    EXPECT_EQ(m_log.textsOf(name).size(), 2U);
}

class UnaryNodeDeathTest : public UnaryNode {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        onRead([](const StringValue&, DataTree&) -> UnaryHandlerReturnType<Int64Value> {
            throw std::runtime_error("boom");
        });
    }
};

TEST_F(UnaryNodeDeathTest, EndsTheProcessForAnExceptionOfTheHandler) {
    EXPECT_DEATH(read("m"), testing::HasSubstr("Assertion failed: [false] \nat:"));
    EXPECT_DEATH(readCast(message("m")), testing::HasSubstr("Aborting process!"));
}

TEST_F(UnaryNodeDeathTest, EndsTheProcessForOtherMessageTypes) {
    EXPECT_DEATH(
        (m_node->callUnaryHandler<UnaryOps::READ, Int64Value, Int64Value>(number(3), m_tree)),
        testing::HasSubstr("Assertion failed: [false] \nat:"));
    EXPECT_DEATH(readCast(number(3)), testing::HasSubstr("Assertion failed: [false] \nat:"));
}

}  // namespace
}  // namespace Hox::ObserverTree
