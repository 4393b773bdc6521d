// The capability in a server of its own, without a port, a bus or an mDNS daemon.
#include <gtest/gtest.h>
#include <hox/testing/in_process_service.h>

#include "lamp_cap_mngr.h"

namespace {

class LampTest : public ::testing::Test {
protected:
    grpc::Status set(const std::string& name, unsigned percent) {
        grpc::ClientContext context;
        Lamp::SetLampReq req;
        Lamp::SetLampResp resp;
        req.set_name(name);
        req.mutable_lamp()->set_percent(percent);
        return m_stub->setLamp(&context, req, &resp);
    }

    Hox::Testing::InProcessService m_service{std::make_unique<LampCapMngr>()};
    std::unique_ptr<Lamp::LampService::Stub> m_stub =
        Lamp::LampService::NewStub(m_service.channel());
};

TEST_F(LampTest, ObserversSeeEachChange) {
    ASSERT_TRUE(set("hall", 10).ok());
    grpc::ClientContext context;
    Hox::ObserverTree::ObserveReq req;
    req.set_key_pattern("/lamps/**");
    const auto stream = m_stub->observeLamps(&context, req);
    Hox::ObserverTree::ObsTreeObserveChangeSet changes;
    ASSERT_TRUE(stream->Read(&changes)) << "the snapshot";
    ASSERT_TRUE(set("hall", 20).ok());
    ASSERT_TRUE(stream->Read(&changes));
    Lamp::Lamp before;
    Lamp::Lamp after;
    const auto& change = changes.node_change_map().at("/lamps/hall").nodepairlist(0);
    ASSERT_TRUE(change.prevmessage().UnpackTo(&before));
    ASSERT_TRUE(change.currentmessage().UnpackTo(&after));
    EXPECT_EQ(before.percent(), 10U);
    EXPECT_EQ(after.percent(), 20U);
    context.TryCancel();
}

TEST_F(LampTest, RefusesANameThatMakesNoKey) {
    EXPECT_EQ(set("a//b", 10).error_code(), grpc::StatusCode::INVALID_ARGUMENT);
}

}  // namespace
