#include "systemd_watcher.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::Capability::StateMonitoring {

namespace {

constexpr const char* manager = "org.freedesktop.systemd1";
constexpr const char* managerPath = "/org/freedesktop/systemd1";
constexpr const char* managerInterface = "org.freedesktop.systemd1.Manager";

/// From a failed attempt to the next one.
constexpr int pauseMilliseconds = 1000;

/// How long the manager may take for an answer, in microseconds.
constexpr std::uint64_t answerLimit = 1'000'000;

int addTo(int epoll, int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
}

}  // namespace

SystemdWatcher::SystemdWatcher(Receiver receiver)
    : m_logger(Log::getLogsystem()->getLogger("SystemdWatcher")),
      m_receiver(std::move(receiver)),
      m_thread([this] { run(); }) {}

SystemdWatcher::~SystemdWatcher() {
    m_end.give();
    {
        // Ends a call to a bus or a manager that does not answer.
        const std::lock_guard<std::mutex> lock(m_mutex);
        shutdown(m_descriptor, SHUT_RDWR);
    }
    m_thread.join();
}

void SystemdWatcher::BusCloser::operator()(sd_bus* bus) const {
    sd_bus_close_unref(bus);
}

void SystemdWatcher::run() {
    openAtTheStart();
    while (!m_end.isGiven()) {
        watch();
        if (m_end.isGiven()) {
            break;
        }
        m_logger->log(Log::here(), spdlog::level::warn,
                      "The system bus is lost, connecting to it again");
        while (!m_end.isGiven(pauseMilliseconds) && !openAgain()) {
        }
    }
    closeBus();
}

/// Without a system bus the machine is set up incorrectly, and nobody would learn of a failure.
void SystemdWatcher::openAtTheStart() {
    int rc = openBus();
    if (!m_end.isGiven()) {
        HOX_ASSERT(rc >= 0);
        rc = matchSignals();
    }
    if (m_end.isGiven()) {
        return;
    }
    HOX_ASSERT(rc >= 0);
    // The name is in the text of the assertion. NOLINTNEXTLINE(readability-identifier-naming)
    const int fd_ep = epoll_create1(EPOLL_CLOEXEC);
    HOX_ASSERT(fd_ep != -1);
    m_epoll = LinuxCppUtil::ownFileDescriptor(fd_ep);
    rc = addTo(fd_ep, sd_bus_get_fd(m_bus.get()));
    HOX_ASSERT(rc == 0);
    rc = addTo(fd_ep, m_end.descriptor());
    HOX_ASSERT(rc == 0);
}

bool SystemdWatcher::openAgain() {
    closeBus();
    if (openBus() >= 0 && !m_end.isGiven() && matchSignals() >= 0 &&
        addTo(LinuxCppUtil::fileDescriptorNumber(m_epoll), sd_bus_get_fd(m_bus.get())) == 0) {
        m_logger->log(Log::here(), spdlog::level::info, "The system bus is back");
        return true;
    }
    return false;
}

int SystemdWatcher::openBus() {
    m_isSubscribed = false;
    sd_bus* bus = nullptr;
    int rc = sd_bus_open_system(&bus);
    m_bus.reset(bus);
    if (rc < 0) {
        return rc;
    }
    rc = sd_bus_set_method_call_timeout(bus, answerLimit);
    if (rc < 0) {
        return rc;
    }
    rc = sd_bus_get_fd(bus);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_descriptor = rc;
    return rc;
}

/// The signals only wake the thread.
int SystemdWatcher::matchSignals() {
    const int rc = sd_bus_match_signal(m_bus.get(), nullptr, nullptr, managerPath, managerInterface,
                                       "StartupFinished", nullptr, nullptr);
    if (rc < 0) {
        return rc;
    }
    return sd_bus_match_signal(m_bus.get(), nullptr, nullptr, managerPath,
                               "org.freedesktop.DBus.Properties", "PropertiesChanged", nullptr,
                               nullptr);
}

/// Until the bus is lost or the thread must end.
void SystemdWatcher::watch() {
    checkSystemState();
    while (!m_end.isGiven() && processBus()) {
        std::array<epoll_event, 5> events{};
        epoll_wait(LinuxCppUtil::fileDescriptorNumber(m_epoll), events.data(),
                   static_cast<int>(events.size()), m_isDue ? pauseMilliseconds : -1);
    }
}

/// Returns false if the bus is lost.
bool SystemdWatcher::processBus() {
    for (bool isWoken = m_isDue;; isWoken = false) {
        int rc = sd_bus_process(m_bus.get(), nullptr);
        for (; rc > 0; rc = sd_bus_process(m_bus.get(), nullptr)) {
            isWoken = true;
        }
        if (rc < 0 || !isWoken || m_end.isGiven()) {
            return rc >= 0;
        }
        // The call may have read further signals: look for them again.
        checkSystemState();
    }
}

void SystemdWatcher::checkSystemState() {
    // The manager sends its signals only while a client is subscribed. It may appear on the bus
    // after this thread has connected.
    if (!m_isSubscribed) {
        m_isSubscribed = sd_bus_call_method(m_bus.get(), manager, managerPath, managerInterface,
                                            "Subscribe", nullptr, nullptr, "") >= 0;
    }
    char* state = nullptr;
    const int rc = sd_bus_get_property_string(m_bus.get(), manager, managerPath, managerInterface,
                                              "SystemState", nullptr, &state);
    const std::unique_ptr<char, decltype(&std::free)> owner(state, &std::free);
    m_isDue = rc == -ETIMEDOUT || !m_isSubscribed;
    if (rc >= 0 && state != nullptr) {
        m_receiver(state);
    }
}

void SystemdWatcher::closeBus() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_descriptor = -1;
    }
    m_bus.reset();
}

}  // namespace Hox::Capability::StateMonitoring
