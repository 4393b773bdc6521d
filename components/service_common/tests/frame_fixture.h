#pragma once

#include <spdlog/logger.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "hox/service_common/capability/icap_mngr.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Service::Fixture {

/// A command line that lives as long as the object.
class Arguments {
public:
    /// The texts behind the program name.
    explicit Arguments(const std::vector<std::string>& arguments);

    int argc() const { return static_cast<int>(m_texts.size()); }
    char** argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

/// The receiver of the service manager's end, named in NOTIFY_SOCKET.
class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// Takes what has come so far, in order.
    std::vector<std::string> take();

    /// Whether READY=1 has come, taken or not.
    bool ready() const;

private:
    int m_socket;
    std::atomic<bool> m_readyTaken{false};
};

/// What has happened in a run of the frame, in order: hooks, log lines of the frame, notifications.
/// Outlives the frame.
class EventLog {
public:
    /// Sets the logger of the frame up, so that its lines are events from here on.
    explicit EventLog(NotifySocket& notifySocket);
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /// Adds an event behind the notifications that have come meanwhile. Any thread.
    void add(const std::string& event);

    /// All events so far, the notifications included. Any thread.
    std::vector<std::string> all();

    /// How often the event is there.
    std::size_t count(const std::string& event);

private:
    void takeNotifications();

    NotifySocket& m_notifySocket;
    std::mutex m_mutex;
    std::vector<std::string> m_events;  // GUARDED_BY(m_mutex)
};

/// A capability that records each call, and whether it came as the frame promises: "locked" if its
/// mutex was held through the context's slot, "unlocked" if it was free and the slot empty.
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

/// Whether nobody holds the mutex. The calling thread may.
bool isFree(std::mutex& mutex);

/// The event descriptors that this process has open.
std::set<int> openEventDescriptors();

/// The present value of an event descriptor, which stays as it is.
std::uint64_t eventCount(int descriptor);

}  // namespace Hox::Service::Fixture
