#include "hox/introspection/introspection_cap_mngr.h"

#include <gmock/gmock.h>
#include <grpcpp/client_context.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <chrono>
#include <cxxopts.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/stdout_logger.h"
#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/testing/in_process_service.h"
#include "hox/testing/log_capture.h"

namespace Hox::Capability::Introspection {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Not;
using ::testing::Pair;

/// The context of a call with a deadline.
std::unique_ptr<grpc::ClientContext> limited() {
    auto context = std::make_unique<grpc::ClientContext>();
    context->set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
    return context;
}

/// The capability in its own server, called over a real channel, with two loggers.
class IntrospectionCapability : public ::testing::Test {
protected:
    IntrospectionCapability() : m_one(add("one")), m_other(add("other")) {}

    ~IntrospectionCapability() override {
        spdlog::drop("one");
        spdlog::drop("other");
        spdlog::default_logger()->set_level(spdlog::level::info);
    }

    static std::shared_ptr<spdlog::logger> add(const std::string& name) {
        auto logger =
            std::make_shared<spdlog::logger>(name, std::make_shared<spdlog::sinks::null_sink_mt>());
        logger->set_level(spdlog::level::info);
        spdlog::register_logger(logger);
        return logger;
    }

    std::map<std::string, int> list() {
        ListLoggersResp response;
        EXPECT_TRUE(m_stub->listLoggers(limited().get(), {}, &response).ok());
        std::map<std::string, int> levels;
        for (const Logger& entry : response.logger()) {
            EXPECT_TRUE(levels.emplace(entry.name(), entry.level()).second) << entry.name();
        }
        return levels;
    }

    grpc::Status set(const std::string& name, int level) {
        SetLogLevelReq request;
        request.set_name(name);
        request.set_level(static_cast<LogLevel>(level));
        SetLogLevelResp response;
        return m_stub->setLogLevel(limited().get(), request, &response);
    }

    grpc::Status setAll(int level) {
        SetAllLogLevelsReq request;
        request.set_level(static_cast<LogLevel>(level));
        SetAllLogLevelsResp response;
        return m_stub->setAllLogLevels(limited().get(), request, &response);
    }

    Hox::Testing::InProcessService m_service{std::make_unique<IntrospectionCapMngr>()};
    std::unique_ptr<IntrospectionService::Stub> m_stub =
        IntrospectionService::NewStub(m_service.channel());
    std::shared_ptr<spdlog::logger> m_one;
    std::shared_ptr<spdlog::logger> m_other;
};

TEST_F(IntrospectionCapability, HasItsPlaceInTheCatalogue) {
    const IntrospectionCapMngr capability;
    EXPECT_EQ(capability.id(), 24);
    EXPECT_EQ(Hox::Service::capabilityName(capability.id()), "introspection");
}

TEST_F(IntrospectionCapability, AddsNoOptions) {
    cxxopts::Options options("program");
    const std::string help = options.help();
    IntrospectionCapMngr().addOptions(options);
    EXPECT_EQ(options.help(), help);
}

TEST_F(IntrospectionCapability, ListsEachLoggerWithItsLevel) {
    m_one->set_level(spdlog::level::err);
    const auto levels = list();
    EXPECT_THAT(levels, Contains(Pair("one", error)));
    EXPECT_THAT(levels, Contains(Pair("other", info)));
    EXPECT_THAT(levels, Contains(Key(""))) << "the default logger";
    std::size_t registered = 0;
    spdlog::apply_all([&](const std::shared_ptr<spdlog::logger>&) { ++registered; });
    EXPECT_EQ(levels.size(), registered);
}

TEST_F(IntrospectionCapability, TranslatesEachLevel) {
    const std::vector<std::pair<LogLevel, spdlog::level::level_enum>> table = {
        {trace, spdlog::level::trace}, {debug, spdlog::level::debug},
        {info, spdlog::level::info},   {warn, spdlog::level::warn},
        {error, spdlog::level::err},   {critical, spdlog::level::critical},
        {off, spdlog::level::off},
    };
    for (const auto& [onWire, inLibrary] : table) {
        EXPECT_TRUE(set("one", onWire).ok()) << LogLevel_Name(onWire);
        EXPECT_EQ(m_one->level(), inLibrary) << LogLevel_Name(onWire);
        EXPECT_THAT(list(), Contains(Pair("one", onWire)));
    }
    EXPECT_EQ(m_other->level(), spdlog::level::info);
}

TEST_F(IntrospectionCapability, ReachesTheDefaultLoggerByItsEmptyName) {
    EXPECT_TRUE(set("", critical).ok());
    EXPECT_EQ(spdlog::default_logger()->level(), spdlog::level::critical);
    EXPECT_EQ(m_one->level(), spdlog::level::info);
}

TEST_F(IntrospectionCapability, KnowsNoUnregisteredLogger) {
    const auto before = list();
    const grpc::Status status = set("nobody", off);
    EXPECT_EQ(status.error_code(), grpc::StatusCode::NOT_FOUND);
    EXPECT_EQ(status.error_message(), "No such logger in registry.");
    EXPECT_THAT(status.error_details(), IsEmpty());
    EXPECT_EQ(list(), before);
    EXPECT_THAT(before, Not(Contains(Key("nobody"))));
}

TEST_F(IntrospectionCapability, TurnsAllLoggersAtOnce) {
    EXPECT_TRUE(setAll(warn).ok());
    const auto levels = list();
    EXPECT_THAT(levels, Contains(Key("one")));
    EXPECT_THAT(levels, ::testing::Each(Pair(::testing::_, warn)));
    EXPECT_EQ(m_one->level(), spdlog::level::warn);
    EXPECT_EQ(spdlog::default_logger()->level(), spdlog::level::warn);
}

TEST_F(IntrospectionCapability, SilencesFailedAssertionsToo) {
    const Testing::LogCapture capture;
    const auto assertions = Log::getLogsystem()->getLogger("assertion_handler", spdlog::level::err);
    assertions->log(spdlog::level::err, "heard");
    EXPECT_TRUE(setAll(off).ok());
    assertions->log(spdlog::level::critical, "unheard");
    EXPECT_TRUE(capture.contains("heard"));
    EXPECT_FALSE(capture.contains("unheard"));
}

TEST_F(IntrospectionCapability, LeavesLaterLoggersAlone) {
    Log::setLogsystem(std::make_unique<Log::StdoutLogger>(spdlog::level::info));
    EXPECT_TRUE(setAll(off).ok());
    const auto later = Log::getLogsystem()->getLogger("later");
    EXPECT_EQ(later->level(), spdlog::level::info);
    EXPECT_THAT(list(), Contains(Pair("later", info)));
    spdlog::drop("later");
}

TEST_F(IntrospectionCapability, LeavesTheLevelsOfSinksAlone) {
    ASSERT_EQ(m_one->sinks().size(), 1U);
    m_one->sinks().front()->set_level(spdlog::level::warn);
    EXPECT_TRUE(set("one", trace).ok());
    EXPECT_TRUE(setAll(debug).ok());
    EXPECT_EQ(m_one->sinks().front()->level(), spdlog::level::warn);
}

TEST_F(IntrospectionCapability, TakesAnyNumberForALevel) {
    EXPECT_TRUE(set("one", 42).ok());
    EXPECT_THAT(list(), Contains(Pair("one", 42)));
    EXPECT_FALSE(m_one->should_log(spdlog::level::critical));
    EXPECT_TRUE(setAll(-1).ok());
    EXPECT_THAT(list(), ::testing::Each(Pair(::testing::_, -1)));
    EXPECT_TRUE(m_one->should_log(spdlog::level::trace));
}

TEST_F(IntrospectionCapability, AnswersWhileItsMutexIsHeld) {
    const std::lock_guard<std::mutex> lock(*m_service.capability().getMutex());
    EXPECT_THAT(list(), Contains(Key("one")));
    EXPECT_TRUE(set("one", trace).ok());
    EXPECT_TRUE(setAll(info).ok());
}

TEST_F(IntrospectionCapability, TurnsLevelsWhileOthersLog) {
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) {
            m_one->log(spdlog::level::warn, "text {}", 1);
        }
    });
    std::thread client([&] {
        for (int round = 0; round < 100; ++round) {
            EXPECT_TRUE(setAll(round % 2 == 0 ? trace : off).ok());
        }
    });
    for (int round = 0; round < 100; ++round) {
        EXPECT_THAT(list(), Contains(Key("one")));
        EXPECT_TRUE(set("one", round % 7).ok());
    }
    client.join();
    stop = true;
    writer.join();
}

TEST(IntrospectionWire, HasTheseMethodsInOrder) {
    const auto* service = google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(
        "Hox.Capability.Introspection.IntrospectionService");
    ASSERT_NE(service, nullptr);
    const std::vector<std::vector<std::string>> table = {
        {"listLoggers", "google.protobuf.Empty", "Hox.Capability.Introspection.ListLoggersResp"},
        {"setLogLevel", "Hox.Capability.Introspection.SetLogLevelReq",
         "Hox.Capability.Introspection.SetLogLevelResp"},
        {"setAllLogLevels", "Hox.Capability.Introspection.SetAllLogLevelsReq",
         "Hox.Capability.Introspection.SetAllLogLevelsResp"},
    };
    ASSERT_EQ(service->method_count(), static_cast<int>(table.size()));
    for (int index = 0; index < service->method_count(); ++index) {
        const auto* method = service->method(index);
        EXPECT_EQ(std::vector<std::string>({method->name(), method->input_type()->full_name(),
                                            method->output_type()->full_name()}),
                  table[static_cast<std::size_t>(index)]);
        EXPECT_FALSE(method->client_streaming() || method->server_streaming());
    }
}

TEST(IntrospectionWire, HasTheseFieldsAndNumbers) {
    const std::vector<std::string> table = {
        "Logger.name 1 string",
        "Logger.level 2 enum",
        "ListLoggersResp.logger 1 message",
        "SetLogLevelReq.name 1 string",
        "SetLogLevelReq.level 2 enum",
        "SetAllLogLevelsReq.level 1 enum",
    };
    std::vector<std::string> fields;
    for (const auto* message :
         {Logger::descriptor(), ListLoggersResp::descriptor(), SetLogLevelReq::descriptor(),
          SetLogLevelResp::descriptor(), SetAllLogLevelsReq::descriptor(),
          SetAllLogLevelsResp::descriptor()}) {
        for (int index = 0; index < message->field_count(); ++index) {
            const auto* field = message->field(index);
            fields.push_back(message->name() + "." + field->name() + " " +
                             std::to_string(field->number()) + " " + field->type_name());
        }
    }
    EXPECT_EQ(fields, table);
    EXPECT_TRUE(ListLoggersResp::descriptor()->field(0)->is_repeated());

    std::vector<std::string> levels;
    for (int index = 0; index < LogLevel_descriptor()->value_count(); ++index) {
        const auto* value = LogLevel_descriptor()->value(index);
        levels.push_back(value->name() + " " + std::to_string(value->number()));
    }
    EXPECT_EQ(levels, std::vector<std::string>({"trace 0", "debug 1", "info 2", "warn 3", "error 4",
                                                "critical 5", "off 6"}));
}

}  // namespace
}  // namespace Hox::Capability::Introspection
