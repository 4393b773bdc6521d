#include "hox/observer_tree/grpc/steady_observer.h"

#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <functional>
#include <future>
#include <optional>
#include <stdexcept>

#include "grpc/served_tree.h"
#include "grpc/told.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::waitUntil;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr const char* loggerName = "steady_observer.h::Hox::ObserverTree::SteadyObserver";

/// Items that are not those of a tree: each stream gets the one element that the test says.
class ScriptedItems : public TestService::Service {
public:
    using Script = std::function<std::optional<ObsTreeObserveChangeSet>(const std::string&)>;

    ScriptedItems(const std::string& address, Script script) : m_script(std::move(script)) {
        grpc::ServerBuilder builder;
        builder.AddListeningPort(address, grpc::InsecureServerCredentials());
        builder.RegisterService(this);
        m_server = builder.BuildAndStart();
    }
    ~ScriptedItems() override {
        m_end.set_value();
        m_server->Shutdown(std::chrono::system_clock::now());
    }
    ScriptedItems(const ScriptedItems&) = delete;
    ScriptedItems(ScriptedItems&&) = delete;
    ScriptedItems& operator=(const ScriptedItems&) = delete;
    ScriptedItems& operator=(ScriptedItems&&) = delete;

    grpc::Status observeItems(grpc::ServerContext* /*context*/, const ObserveReq* request,
                              grpc::ServerWriter<ObsTreeObserveChangeSet>* writer) override {
        if (const auto element = m_script(request->key_pattern())) {
            writer->Write(*element);
        }
        m_hasEnded.wait();
        return grpc::Status::OK;
    }

    static ObsTreeObserveChangeSet elementWith(const std::string& name, int count) {
        ObsTreeObserveChangeSet element;
        Item item;
        item.set_name(name);
        item.set_count(count);
        (*element.mutable_node_change_map())["/items/" + name]
            .add_nodepairlist()
            ->mutable_currentmessage()
            ->PackFrom(item);
        return element;
    }

private:
    const Script m_script;
    std::promise<void> m_end;
    const std::shared_future<void> m_hasEnded = m_end.get_future().share();
    std::unique_ptr<grpc::Server> m_server;
};

/// A service with items, which can end and come back at the same address, and an observer of it.
class SteadyObserverTest : public ::testing::Test {
protected:
    using Served = ServedTree<TestService>;

    SteadyObserverTest() : m_served(std::make_unique<Served>()), m_address(m_served->address) {}

    ~SteadyObserverTest() override {
        m_observer.reset();
        m_tree.reset();
        m_served.reset();
    }

    void observe(const std::string& pattern = "/items/**") {
        observe(pattern, m_served->newChannel());
    }

    void observe(const std::string& pattern, const std::shared_ptr<grpc::Channel>& channel,
                 const std::shared_ptr<InProcessGate>& gate = nullptr) {
        m_tree =
            AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<TestService>(channel, m_mutex, gate);
        m_observer = std::make_unique<SteadyObserver>(
            m_tree, m_mutex, "/items", pattern,
            [this](const std::string& key, const DataTreeValPtr& old,
                   const DataTreeValPtr& current) {
                m_told.add(key + " " + text(old) + " " + text(current));
            });
    }

    void endService() { m_served.reset(); }
    void startService() { m_served = std::make_unique<Served>(m_address); }

    static std::string text(const DataTreeValPtr& value) {
        return value ? std::to_string(value->get<Item>().count()) : "none";
    }

    const std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    Told m_told;
    std::unique_ptr<Served> m_served;
    const std::string m_address;
    std::shared_ptr<GrpcProxyObserverTree> m_tree;
    std::unique_ptr<SteadyObserver> m_observer;
};

TEST_F(SteadyObserverTest, ReportsTheContentAndEachChange) {
    m_served->create("a", 1);
    observe();
    ASSERT_TRUE(m_told.waitFor(1));
    m_served->create("a", 2);
    m_served->create("b", 3);
    ASSERT_TRUE(m_told.waitFor(3));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1", "/items/a 1 2", "/items/b none 3"));
}

TEST_F(SteadyObserverTest, FollowsATreeOfTheSameProcessUntilItsGateIsClosed) {
    const auto gate = std::make_shared<InProcessGate>();
    m_served->create("a", 1);
    observe("/items/**", m_served->server->InProcessChannel(grpc::ChannelArguments()), gate);
    ASSERT_TRUE(m_told.waitFor(1));
    m_served->create("a", 2);
    ASSERT_TRUE(m_told.waitFor(2));
    gate->close();
    endService();
    EXPECT_FALSE(
        waitUntil([this] { return m_told.lines().size() > 2; }, 2 * SteadyObserver::minPause));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1", "/items/a 1 2"));
}

TEST_F(SteadyObserverTest, DoesNotReportAWriteOfAnEqualValue) {
    m_served->create("a", 1);
    observe();
    ASSERT_TRUE(m_told.waitFor(1));
    m_served->create("a", 1);
    m_served->create("b", 2);
    ASSERT_TRUE(m_told.waitFor(2));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1", "/items/b none 2"));
}

TEST_F(SteadyObserverTest, ReportsOnlyWhatALossHasChanged) {
    m_served->create("same", 1);
    m_served->create("other", 2);
    m_served->create("gone", 3);
    observe();
    ASSERT_TRUE(m_told.waitFor(3));
    endService();
    m_served = std::make_unique<Served>(m_address, [](Served& service) {
        service.create("same", 1);
        service.create("other", 20);
        service.create("new", 4);
    });
    ASSERT_TRUE(m_told.waitFor(6));
    auto lines = m_told.lines();
    lines.erase(lines.begin(), lines.begin() + 3);
    EXPECT_THAT(lines, UnorderedElementsAre("/items/gone 3 none", "/items/other 2 20",
                                            "/items/new none 4"));
}

TEST_F(SteadyObserverTest, ReportsTheRemovalOfEverythingByALoss) {
    m_served->create("a", 1);
    m_served->create("b", 2);
    observe();
    ASSERT_TRUE(m_told.waitFor(2));
    for (int round = 0; round < 2; ++round) {
        endService();
        startService();
    }
    ASSERT_TRUE(m_told.waitFor(4));
    m_served->create("c", 3);
    ASSERT_TRUE(m_told.waitFor(5));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1", "/items/b none 2", "/items/a 1 none",
                                            "/items/b 2 none", "/items/c none 3"));
}

TEST_F(SteadyObserverTest, WaitsForAServiceThatIsNotThere) {
    const auto channel = m_served->newChannel();
    endService();
    observe("/items/**", channel);
    ASSERT_TRUE(
        waitUntil([&] { return channel->GetState(false) == GRPC_CHANNEL_TRANSIENT_FAILURE; }));
    startService();
    m_served->create("a", 1);
    ASSERT_TRUE(m_told.waitFor(1));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1"));
}

TEST_F(SteadyObserverTest, EndsWhileTheServiceIsNotThere) {
    const auto channel = m_served->newChannel();
    endService();
    observe("/items/**", channel);
}

TEST_F(SteadyObserverTest, EndsInTheMiddleOfAnything) {
    for (int round = 0; round < 20; ++round) {
        observe();
        m_served->create("a", round);
        if (round % 2 == 0) {
            ASSERT_TRUE(m_told.waitFor(static_cast<std::size_t>(round / 2 + 1)));
        }
        m_observer.reset();
        m_tree.reset();
    }
}

TEST_F(SteadyObserverTest, LogsAMalformedPatternAndStaysSilent) {
    const Hox::Testing::LogCapture log(loggerName);
    observe("/items//a");
    ASSERT_TRUE(waitUntil([&] { return !log.textsAt(spdlog::level::err).empty(); }));
    EXPECT_THAT(log.textsAt(spdlog::level::err),
                Contains(HasSubstr("/items//a can not be observed: PathError: ")));
    Told other;
    const SteadyObserver goodPattern(m_tree, m_mutex, "/items", "/items/**",
                                     [&other](const std::string& key, const auto& /*old*/,
                                              const auto& /*current*/) { other.add(key); });
    m_served->create("a", 1);
    ASSERT_TRUE(other.waitFor(1));
    EXPECT_THAT(m_told.lines(), IsEmpty());
}

TEST_F(SteadyObserverTest, NeedsAnObserveMethod) {
    m_tree = AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<TestService>(m_served->newChannel(),
                                                                            m_mutex, nullptr);
    EXPECT_THROW(SteadyObserver(m_tree, m_mutex, "/nothing", "/items/**", nullptr),
                 std::out_of_range);
}

TEST_F(SteadyObserverTest, WaitsForAServiceThatHasTheMethod) {
    const Hox::Testing::LogCapture log(loggerName);
    const auto channel = m_served->newChannel();
    endService();
    {
        TestService::Service withoutMethods;
        grpc::ServerBuilder builder;
        builder.AddListeningPort(m_address, grpc::InsecureServerCredentials());
        builder.RegisterService(&withoutMethods);
        const auto server = builder.BuildAndStart();
        observe("/items/**", channel);
        ASSERT_TRUE(waitUntil([&] { return !log.textsAt(spdlog::level::err).empty(); }));
    }
    startService();
    m_served->create("a", 1);
    ASSERT_TRUE(m_told.waitFor(1));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1"));
    EXPECT_THAT(log.textsAt(spdlog::level::err),
                ElementsAre("The stream of /items/** has ended, it is observed anew: 12 "));
}

TEST_F(SteadyObserverTest, SurvivesAnElementThatIsTooLarge) {
    const Hox::Testing::LogCapture log(loggerName);
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(1000);
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 10);
    m_served->create("a", 1);
    observe("/items/**",
            grpc::CreateCustomChannel(m_address, grpc::InsecureChannelCredentials(), arguments));
    ASSERT_TRUE(m_told.waitFor(1));
    m_served->create(std::string(1000, 'x'), 2);
    // The content itself is too large from now on.
    ASSERT_TRUE(waitUntil([&] { return !log.textsAt(spdlog::level::err).empty(); }));
    EXPECT_THAT(log.textsAt(spdlog::level::err),
                Contains(HasSubstr("it is observed anew: 8 Received message larger than max")));
    endService();
    m_served = std::make_unique<Served>(m_address, [](Served& service) {
        service.create("a", 1);
        service.create("b", 3);
    });
    ASSERT_TRUE(m_told.waitFor(2));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1", "/items/b none 3"));
}

TEST_F(SteadyObserverTest, TakesAnyAnswerToItsQuestionForOne) {
    const auto channel = m_served->newChannel();
    endService();
    {
        const ScriptedItems items(m_address, [](const std::string& /*pattern*/) {
            return ScriptedItems::elementWith("a", 1);
        });
        observe("/items/**", channel);
        ASSERT_TRUE(m_told.waitFor(1));
    }
    const ScriptedItems withoutItems(m_address, [](const std::string& pattern) {
        return pattern.empty() ? std::optional(ObsTreeObserveChangeSet()) : std::nullopt;
    });
    ASSERT_TRUE(m_told.waitFor(2));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1", "/items/a 1 none"));
    m_observer.reset();
}

TEST_F(SteadyObserverTest, KeepsWhatItKnowsIfItsQuestionIsNotAnswered) {
    const auto channel = m_served->newChannel();
    endService();
    {
        const ScriptedItems items(m_address, [](const std::string& /*pattern*/) {
            return ScriptedItems::elementWith("a", 1);
        });
        observe("/items/**", channel);
        ASSERT_TRUE(m_told.waitFor(1));
    }
    {
        std::promise<void> hasAsked;
        const ScriptedItems silent(
            m_address, [&](const std::string& pattern) -> std::optional<ObsTreeObserveChangeSet> {
                if (pattern.empty()) {
                    hasAsked.set_value();
                }
                return std::nullopt;
            });
        hasAsked.get_future().wait();
        EXPECT_FALSE(waitUntil([this] { return m_told.lines().size() > 1; },
                               std::chrono::milliseconds(1200)));
    }
    m_served = std::make_unique<Served>(m_address, [](Served& service) {
        service.create("a", 1);
        service.create("b", 2);
    });
    ASSERT_TRUE(m_told.waitFor(2));
    EXPECT_THAT(m_told.lines(), ElementsAre("/items/a none 1", "/items/b none 2"));
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
