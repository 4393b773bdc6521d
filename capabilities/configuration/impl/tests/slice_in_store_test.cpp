// An owner's slice in a real store, over a real connection.
#include <gmock/gmock.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/wrappers.pb.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "configuration.grpc.pb.h"
#include "configuration_store.h"
#include "hox/configuration/conf_node_data_hndlr.h"
#include "hox/configuration/conf_obstree_handler.h"
#include "hox/configuration/slice.h"
#include "hox/observer_tree/builders/async_grpc_server_obs_tree_builder.h"
#include "hox/observer_tree/grpc/grpc_server_observer_tree.h"
#include "hox/observer_tree/persistence/value_text.h"
#include "hox/testing/temp_dir.h"
#include "hox/testing/wait_until.h"

namespace Hox::Capability::Configuration {
namespace {

using google::protobuf::Duration;
using google::protobuf::StringValue;
using Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder;
using Hox::ObserverTree::AsyncGRPCServerObsTreeBuilder;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::GrpcServerObserverTree;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;
using ::testing::ElementsAre;

/// The store as a service: with the saved configuration of its folder.
class ServedStore {
public:
    ServedStore(const std::string& folder, const std::string& listeningAddress) {
        grpc::ServerBuilder serverBuilder;
        AsyncGRPCServerObsTreeBuilder builder(&serverBuilder, m_mutex);
        m_tree = std::make_unique<GrpcServerObserverTree>(builder.asyncGrpcServerHandler());
        m_store = std::make_unique<ConfObstreeHandler>(*m_tree, m_lock, m_mutex, folder, "head-1");
        m_store->registerObsTreeHandlers();
        m_store->addObservers();
        builder.buildServerObsTree<Api::ConfigurationService>(*m_tree);
        int port = 0;
        serverBuilder.AddListeningPort(listeningAddress, grpc::InsecureServerCredentials(), &port);
        m_server = serverBuilder.BuildAndStart();
        address = "127.0.0.1:" + std::to_string(port);
        m_handler = builder.asyncGrpcServerHandler();
        m_handler->startCompletionQueueThread();
    }

    ~ServedStore() {
        m_server->Shutdown(std::chrono::system_clock::now());
        m_handler.reset();
        m_tree.reset();  // the last owner of the handler, whose thread ends with it
        m_store.reset();
    }
    ServedStore(const ServedStore&) = delete;
    ServedStore(ServedStore&&) = delete;
    ServedStore& operator=(const ServedStore&) = delete;
    ServedStore& operator=(ServedStore&&) = delete;

    template <typename Response, UnaryOps operation, typename Request>
    Response call(const std::string& key, const Request& request) {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        const auto result = m_tree->callApiOp<operation, Request, Response>(key, request);
        EXPECT_TRUE(result.status.isOk()) << result.status.errorMessage();
        return std::move(*result.message);
    }

    void save() {
        Api::UpdateSysConfReq request;
        request.mutable_update_type()->set_savechanges(true);
        call<Api::UpdateSysConfResp, UnaryOps::UPDATE>("/sys/conf/.data.", request);
    }

    void discard() {
        Api::UpdateSysConfReq request;
        request.mutable_update_type()->set_discardchanges(true);
        call<Api::UpdateSysConfResp, UnaryOps::UPDATE>("/sys/conf/.data.", request);
    }

    /// The text at a key of the slice.
    std::string textAt(const std::string& key) {
        Api::ReadCapConfReq request;
        *request.mutable_confid() = Update("cap").request.confid();
        const auto read = call<Api::ReadCapConfResp, UnaryOps::READ>("/.rcc.", request);
        StringValue text;
        EXPECT_TRUE(read.capconfchangeset()
                        .node_change_map()
                        .at("/sys/conf/mb/0/cap" + key)
                        .nodepairlist(0)
                        .currentmessage()
                        .UnpackTo(&text));
        return text.value();
    }

    std::string stateId() {
        google::protobuf::Any packed;
        StringValue id;
        EXPECT_TRUE(Hox::ObserverTree::valueFromText(textAt("/__csid"), packed) &&
                    packed.UnpackTo(&id));
        return id.value();
    }

    std::string address;

private:
    std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    std::unique_ptr<std::unique_lock<std::mutex>> m_lock;
    std::unique_ptr<grpc::Server> m_server;
    std::unique_ptr<GrpcServerObserverTree> m_tree;
    std::unique_ptr<ConfObstreeHandler> m_store;
    std::shared_ptr<Hox::ObserverTree::AsyncGrpcServerHandler> m_handler;
};

/// The only owner of a slice, in another process for all that the store knows.
class SliceInStore : public ::testing::Test {
protected:
    SliceInStore() : m_store(newStore("127.0.0.1:0")), m_address(m_store->address) {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
        arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 100);
        const auto proxy =
            AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<Api::ConfigurationService>(
                grpc::CreateCustomChannel(m_address, grpc::InsecureChannelCredentials(), arguments),
                std::make_shared<std::mutex>(), nullptr);
        m_slice = std::make_unique<Slice>(
            std::make_shared<ConfNodeDataHndlr>(proxy, m_address, [] { return false; }), "mb", "0",
            "cap");
        m_slice->observe([this](const ChangeSetType& changes) { record(changes); });
        EXPECT_TRUE(m_slice->waitForContent(limit));
    }

    std::unique_ptr<ServedStore> newStore(const std::string& listeningAddress) {
        return std::make_unique<ServedStore>((m_folder / "configuration").string(),
                                             listeningAddress);
    }

    void restartStore() {
        m_store.reset();
        m_store = newStore(m_address);
    }

    void set(const std::string& key, int seconds) {
        const auto stored = trySet(key, seconds);
        EXPECT_TRUE(stored.isOk()) << stored.errorMessage();
    }

    Status trySet(const std::string& key, int seconds) {
        Duration duration;
        duration.set_seconds(seconds);
        return m_slice->set(key, duration);
    }

    void record(const ChangeSetType& changes) {
        std::string line;
        for (const auto& [key, keyChanges] : changes) {
            const auto& current = keyChanges.front().current;
            line += key + "=" +
                    (current ? std::to_string(current->get<Duration>().seconds()) : "gone") + " ";
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_told.push_back(line);
    }

    std::vector<std::string> told() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_told;
    }

    bool waitForNumber(std::size_t number) const {
        return Hox::Testing::waitUntil([&] { return told().size() >= number; });
    }

    static constexpr std::chrono::seconds limit{30};

    Hox::Testing::TempDir m_folder{"/dev/shm"};
    mutable std::mutex m_mutex;
    std::vector<std::string> m_told;  // GUARDED_BY(m_mutex)
    std::unique_ptr<ServedStore> m_store;
    const std::string m_address;
    std::unique_ptr<Slice> m_slice;
};

TEST_F(SliceInStore, KeepsEachValueAsJson) {
    set("/a", 2);
    EXPECT_EQ(m_store->textAt("/a"),
              R"({"@type":"type.googleapis.com/google.protobuf.Duration","value":"2s"})");
    EXPECT_THAT(told(), ElementsAre(""));
}

TEST_F(SliceInStore, ARefusedUpdateIsFollowedByTheChangesOfOthers) {
    set("/a", 2);
    m_store->call<Api::UpdateCapConfResp, UnaryOps::UPDATE>(
        "/sys/conf",
        Update("cap", m_store->stateId())
            .set("/b", R"({"@type":"type.googleapis.com/google.protobuf.Duration","value":"3s"})")
            .request);
    EXPECT_EQ(trySet("/a", 4).statusCode(), ProtoStatus::FAILED_PRECONDITION);
    ASSERT_TRUE(waitForNumber(2));
    set("/a", 4);
    EXPECT_THAT(told(), ElementsAre("", "/b=3 "));
}

TEST_F(SliceInStore, TellsWhatAnOlderSavedCopyHas) {
    set("/a", 2);
    set("/b", 3);
    m_store->save();
    set("/a", 20);
    set("/c", 4);
    restartStore();
    ASSERT_TRUE(waitForNumber(2));
    EXPECT_THAT(told(), ElementsAre("", "/a=2 /c=gone "));
    set("/c", 5);
}

TEST_F(SliceInStore, TellsTheEndOfAllThatWasNeverSaved) {
    set("/a", 2);
    restartStore();
    ASSERT_TRUE(waitForNumber(2));
    EXPECT_THAT(told(), ElementsAre("", "/a=gone "));
    set("/a", 3);
}

TEST_F(SliceInStore, TellsWhatAnOperatorReverts) {
    set("/a", 2);
    m_store->save();
    set("/a", 3);
    set("/b", 4);
    m_store->discard();
    ASSERT_TRUE(waitForNumber(2));
    EXPECT_THAT(told(), ElementsAre("", "/a=2 /b=gone "));
    set("/a", 5);
    EXPECT_EQ(told().size(), 2U);
}

}  // namespace
}  // namespace Hox::Capability::Configuration
