#include "fake_cap_mngr.h"

#include <utility>

#include "frame_probes.h"

namespace Hox::Service::Fixture {

FakeCapMngr::FakeCapMngr(std::string name, int id, EventLog& events)
    : FakeCapMngr(std::move(name), id, events, Hooks{}) {}

FakeCapMngr::FakeCapMngr(std::string name, int id, EventLog& events, Hooks hooks)
    : m_name(std::move(name)), m_id(id), m_events(events), m_hooks(std::move(hooks)) {}

FakeCapMngr::~FakeCapMngr() {
    m_events.add(m_name + " gone");
}

void FakeCapMngr::addOptions(cxxopts::Options& options) {
    record("addOptions", nullptr);
    if (m_hooks.addOptions) {
        m_hooks.addOptions(options);
    }
}

void FakeCapMngr::initCapability(LumServiceCtx& ctx) {
    record("initCapability", &ctx);
    if (m_hooks.initCapability) {
        m_hooks.initCapability(ctx);
    }
}

void FakeCapMngr::serverStarted(LumServiceCtx& ctx) {
    record("serverStarted", &ctx);
    if (m_hooks.serverStarted) {
        m_hooks.serverStarted(ctx);
    }
}

void FakeCapMngr::proxyObsTreesReady(LumServiceCtx& ctx) {
    record("proxyObsTreesReady", &ctx);
    if (m_hooks.proxyObsTreesReady) {
        m_hooks.proxyObsTreesReady(ctx);
    }
}

void FakeCapMngr::record(const std::string& hook, LumServiceCtx* ctx) {
    const bool held = !isFree(*m_mutex);
    const auto* slot = ctx != nullptr ? ctx->getCapabilityLock().get() : nullptr;
    const bool locked =
        held && slot != nullptr && slot->owns_lock() && slot->mutex() == m_mutex.get();
    const bool unlocked = !held && slot == nullptr;
    std::string state = "inconsistent";
    if (locked) {
        state = "locked";
    } else if (unlocked) {
        state = "unlocked";
    }
    m_events.add(m_name + "." + hook + " " + state);
}

}  // namespace Hox::Service::Fixture
