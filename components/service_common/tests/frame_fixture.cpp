#include "frame_fixture.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <utility>

namespace Hox::Service::Fixture {

namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

/// The socket functions take the address of any family by one type.
template <typename Address>
sockaddr* asSocketAddress(Address& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

/// Makes an event of each record: level in brackets, then the text.
class EventSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit EventSink(EventLog& events) : m_events(events) {}

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        const auto level = spdlog::level::to_string_view(msg.level);
        m_events.add("[" + std::string(level.data(), level.size()) + "] " +
                     std::string(msg.payload.data(), msg.payload.size()));
    }
    void flush_() override {}

private:
    EventLog& m_events;
};

}  // namespace

Arguments::Arguments(const std::vector<std::string>& arguments) : m_texts{"program"} {
    m_texts.insert(m_texts.end(), arguments.begin(), arguments.end());
    for (auto& text : m_texts) {
        m_pointers.push_back(text.data());
    }
    m_pointers.push_back(nullptr);
}

NotifySocket::NotifySocket() : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    require(m_socket >= 0, "socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // Bound by its family alone the kernel picks an abstract name.
    require(bind(m_socket, asSocketAddress(address), sizeof(address.sun_family)) == 0, "bind");
    socklen_t size = sizeof(address);
    require(getsockname(m_socket, asSocketAddress(address), &size) == 0, "getsockname");
    const std::size_t length = size - offsetof(sockaddr_un, sun_path);
    setenv("NOTIFY_SOCKET", ("@" + std::string(address.sun_path + 1, length - 1)).c_str(), 1);
}

NotifySocket::~NotifySocket() {
    unsetenv("NOTIFY_SOCKET");
    close(m_socket);
}

std::vector<std::string> NotifySocket::take() {
    std::vector<std::string> texts;
    std::array<char, 256> buffer{};
    ssize_t size = 0;
    while ((size = recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0) {
        texts.emplace_back(buffer.data(), static_cast<std::size_t>(size));
        if (texts.back() == "READY=1") {
            m_readyTaken = true;
        }
    }
    return texts;
}

bool NotifySocket::ready() const {
    std::array<char, 256> buffer{};
    const ssize_t size = recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_PEEK);
    return m_readyTaken ||
           (size > 0 && std::string(buffer.data(), static_cast<std::size_t>(size)) == "READY=1");
}

EventLog::EventLog(NotifySocket& notifySocket) : m_notifySocket(notifySocket) {
    spdlog::drop("ServiceInitializer");
    auto logger =
        std::make_shared<spdlog::logger>("ServiceInitializer", std::make_shared<EventSink>(*this));
    logger->set_level(spdlog::level::trace);
    spdlog::register_logger(logger);
}

EventLog::~EventLog() {
    spdlog::drop("ServiceInitializer");
}

void EventLog::add(const std::string& event) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    takeNotifications();
    m_events.push_back(event);
}

std::vector<std::string> EventLog::all() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    takeNotifications();
    return m_events;
}

std::size_t EventLog::count(const std::string& event) {
    const auto events = all();
    return static_cast<std::size_t>(std::count(events.begin(), events.end(), event));
}

void EventLog::takeNotifications() {
    for (const auto& text : m_notifySocket.take()) {
        m_events.push_back("notify " + text);
    }
}

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

bool isFree(std::mutex& mutex) {
    // Trying a mutex that the calling thread may hold is left to another thread.
    return std::async(std::launch::async,
                      [&mutex] { return std::unique_lock(mutex, std::try_to_lock).owns_lock(); })
        .get();
}

std::set<int> openEventDescriptors() {
    std::set<int> descriptors;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code vanished;
        const auto target = std::filesystem::read_symlink(entry.path(), vanished);
        if (!vanished && target == "anon_inode:[eventfd]") {
            descriptors.insert(std::stoi(entry.path().filename()));
        }
    }
    return descriptors;
}

std::uint64_t eventCount(int descriptor) {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(descriptor));
    std::string word;
    while (info >> word) {
        if (word == "eventfd-count:") {
            std::uint64_t count = 0;
            info >> std::hex >> count;
            return count;
        }
    }
    throw std::runtime_error("not an event descriptor");
}

}  // namespace Hox::Service::Fixture
