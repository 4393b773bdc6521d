#pragma once

#include <functional>
#include <string>

#include "event_log.h"
#include "hox/service_common/capability/icap_mngr.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Service::Fixture {

/// A capability that records each call and its locking: "locked" if its mutex was held through the
/// context's slot, "unlocked" if it was free and the slot empty.
class FakeCapMngr : public ICapMngr {
public:
    struct Hooks {
        std::function<void(cxxopts::Options&)> addOptions;
        std::function<void(LumServiceCtx&)> initCapability;
        std::function<void(LumServiceCtx&)> serverStarted;
        std::function<void(LumServiceCtx&)> proxyObsTreesReady;
    };

    FakeCapMngr(std::string name, int id, EventLog& events);
    FakeCapMngr(std::string name, int id, EventLog& events, Hooks hooks);
    ~FakeCapMngr() override;

    int id() const override { return m_id; }
    void addOptions(cxxopts::Options& options) override;
    void initCapability(LumServiceCtx& ctx) override;
    void serverStarted(LumServiceCtx& ctx) override;
    void proxyObsTreesReady(LumServiceCtx& ctx) override;

private:
    void record(const std::string& hook, LumServiceCtx* ctx);

    std::string m_name;
    int m_id;
    EventLog& m_events;
    Hooks m_hooks;
};

}  // namespace Hox::Service::Fixture
