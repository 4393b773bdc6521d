#pragma once

#include <grpcpp/client_context.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hox/state_monitoring/state_monitor_cap_mngr.h"
#include "hox/testing/in_process_service.h"
#include "obstree.pb.h"
#include "state_mon_fixture.h"
#include "state_monitoring.grpc.pb.h"
#include "state_monitoring_internals.pb.h"

namespace Hox::Capability::StateMonitoring::Fixture {

using Hox::ObserverTree::ObserveReq;
using Hox::ObserverTree::ObsTreeObserveChangeSet;

/// The state monitor as run by the frame, and a client.
class StateMonitorService {
public:
    explicit StateMonitorService(const std::vector<std::string>& arguments = {},
                                 const std::string& address = "")
        : m_service(std::make_unique<StateMonitorCapMngr>(), arguments, address),
          m_stub(Api::StateMonitoringService::NewStub(m_service.channel())) {}

    Api::StateMonitoringService::Stub& stub() { return *m_stub; }
    std::mutex& mutex() { return *m_service.capability().getMutex(); }

    template <typename Req, typename Resp>
    grpc::Status call(grpc::Status (Api::StateMonitoringService::Stub::*method)(
                          grpc::ClientContext*, const Req&, Resp*),
                      const Req& req, Resp& resp) {
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
        return (m_stub.get()->*method)(&context, req, &resp);
    }

    grpc::Status create(const Api::StateNotification& notification) {
        Api::CreateStateNotificationReq req;
        *req.mutable_statenotification() = notification;
        Api::CreateStateNotificationResp resp;
        return call(&Api::StateMonitoringService::Stub::createStateNotification, req, resp);
    }

    Api::StateSeverity currentState() {
        Api::GetCurrentStateResp resp;
        EXPECT_TRUE(call(&Api::StateMonitoringService::Stub::getCurrentState,
                         Api::GetCurrentStateReq(), resp)
                        .ok());
        return resp.currentstate();
    }

    /// The value of the key in the first element of a stream; empty if no element arrives before
    /// the next report.
    std::vector<std::string> connectUrls() {
        Stream stream(*this, "/**");
        EXPECT_TRUE(create(notification("a", "b", "c")).ok());
        const auto changes = stream.read().node_change_map();
        std::vector<std::string> urls;
        const auto conf = changes.find("/conf");
        if (conf != changes.end()) {
            EXPECT_EQ(conf->second.nodepairlist_size(), 1);
        }
        if (conf != changes.end() && conf->second.nodepairlist_size() == 1) {
            StateMonitorConf message;
            EXPECT_TRUE(conf->second.nodepairlist(0).currentmessage().UnpackTo(&message));
            urls.assign(message.statemonitorconnecturls().begin(),
                        message.statemonitorconnecturls().end());
        }
        return urls;
    }

    /// An observe stream that ends with the object.
    class Stream {
    public:
        Stream(StateMonitorService& service, const std::string& pattern) {
            ObserveReq req;
            req.set_key_pattern(pattern);
            m_context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
            m_reader = service.stub().observeStateNotifications(&m_context, req);
        }
        ~Stream() {
            m_context.TryCancel();
            m_reader->Finish();
        }
        Stream(const Stream&) = delete;
        Stream& operator=(const Stream&) = delete;

        ObsTreeObserveChangeSet read() {
            ObsTreeObserveChangeSet changes;
            EXPECT_TRUE(m_reader->Read(&changes));
            return changes;
        }

    private:
        grpc::ClientContext m_context;
        std::unique_ptr<grpc::ClientReader<ObsTreeObserveChangeSet>> m_reader;
    };

private:
    Hox::Testing::InProcessService m_service;
    std::unique_ptr<Api::StateMonitoringService::Stub> m_stub;
};

}  // namespace Hox::Capability::StateMonitoring::Fixture
