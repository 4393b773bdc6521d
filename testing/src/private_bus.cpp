#include "hox/testing/private_bus.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "bus_question.h"
#include "hox/testing/temp_dir.h"
#include "hox/testing/wait_until.h"

namespace Hox::Testing {

namespace {

/// The same for all tests of a process.
const std::filesystem::path& folderOfThisProcess() {
    static const TempDir folder;
    return folder.path();
}

}  // namespace

PrivateBus::PrivateBus() : PrivateBus(folderOfThisProcess()) {
    const char* former = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (former == nullptr || m_address != former) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    }
}

PrivateBus::PrivateBus(const std::filesystem::path& folder)
    : m_folder(folder), m_address("unix:path=" + (folder / "bus").string()) {
    writeConfiguration();
    start();
}

void PrivateBus::start() {
    // A socket that is left would be taken for the new one.
    std::filesystem::remove(m_folder / "bus");
    m_daemon.emplace(std::vector<std::string>{"dbus-daemon",
                                              "--config-file=" + (m_folder / "bus.conf").string(),
                                              "--nofork", "--nopidfile", "--nosyslog"});
    const auto answers = [this] { return hasName("org.freedesktop.DBus"); };
    if (!waitUntil([&] { return answers() || !m_daemon->isRunning(); }) || !answers()) {
        throw std::runtime_error("dbus-daemon does not listen: " + m_daemon->output());
    }
}

void PrivateBus::stop() {
    m_daemon->signal(SIGTERM);
    if (!m_daemon->waitForEnd()) {
        throw std::runtime_error("dbus-daemon does not end: " + m_daemon->output());
    }
}

void PrivateBus::kill() {
    m_daemon->signal(SIGKILL);
    m_daemon->waitForEnd();
}

bool PrivateBus::hasName(const std::string& name) const {
    return askBus(m_address, {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                              "org.freedesktop.DBus", "NameHasOwner", name})
               .value_or(0) != 0;
}

void PrivateBus::writeConfiguration() const {
    std::ofstream(m_folder / "bus.conf")
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>system</type><listen>"
        << m_address
        << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/>"
           "<allow own=\"*\"/><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/></policy></busconfig>\n";
}

}  // namespace Hox::Testing
