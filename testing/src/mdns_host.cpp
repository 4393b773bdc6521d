#include "hox/testing/mdns_host.h"

#include <csignal>
#include <fstream>
#include <stdexcept>

#include "bus_question.h"
#include "hox/testing/wait_until.h"

namespace Hox::Testing {

namespace {

/// As Avahi counts its states.
constexpr int serving = 2;

std::vector<std::string> holderCommand(const std::filesystem::path& services) {
    return {"unshare",
            "-m",
            "-n",
            "sh",
            "-ec",
            "mount -t tmpfs tmpfs /run\n"
            "mount --bind \"$0\" /etc/avahi/services\n"
            "ip link set lo up\n"
            "echo ready\n"
            "exec sleep infinity",
            services.string()};
}

std::filesystem::path makeFolder(const std::filesystem::path& folder) {
    std::filesystem::create_directory(folder);
    return folder;
}

}  // namespace

bool MdnsHost::arePossible() {
    ChildProcess attempt(
        {"unshare", "-m", "-n", "sh", "-ec", "mount -t tmpfs tmpfs /run; avahi-daemon --version"});
    return attempt.waitForEnd() == 0;
}

MdnsHost::MdnsHost(const PrivateBus& bus) : MdnsHost(bus, Settings()) {}

MdnsHost::MdnsHost(const PrivateBus& bus, const Settings& settings)
    : m_bus(bus), m_holder(holderCommand(makeFolder(m_folder / "services"))) {
    writeConfiguration(settings);
    if (!waitUntil([this] { return m_holder.output() == "ready\n" || !m_holder.isRunning(); }) ||
        !m_holder.isRunning()) {
        throw std::runtime_error("no host: " + m_holder.output());
    }
}

void MdnsHost::join(MdnsHost& first, MdnsHost& second) {
    first.runTool({"ip", "link", "add", "cable", "type", "veth", "peer", "name", "cable", "netns",
                   std::to_string(second.m_holder.pid())});
    first.runTool({"ip", "address", "add", "10.0.0.1/24", "dev", "cable"});
    second.runTool({"ip", "address", "add", "10.0.0.2/24", "dev", "cable"});
    first.runTool({"ip", "link", "set", "cable", "up"});
    second.runTool({"ip", "link", "set", "cable", "up"});
}

void MdnsHost::addServiceFile(const std::string& name, const std::string& type, int port) {
    std::ofstream(m_folder / "services" / (name + ".service"))
        << "<?xml version=\"1.0\" standalone='no'?>\n"
           "<!DOCTYPE service-group SYSTEM \"avahi-service.dtd\">\n<service-group><name>"
        << name << "</name><service><type>" << type << "</type><port>" << port
        << "</port></service></service-group>\n";
}

void MdnsHost::startDaemon() {
    launchDaemon();
    const auto serves = [this] {
        return askBus(m_bus.address(), {"org.freedesktop.Avahi",
                                        "/",
                                        "org.freedesktop.Avahi.Server",
                                        "GetState",
                                        {}}) == serving;
    };
    if (!waitUntil([&] { return serves() || !m_daemon->isRunning(); }) || !serves()) {
        throw std::runtime_error("avahi-daemon does not serve: " + m_daemon->output());
    }
}

void MdnsHost::launchDaemon() {
    m_daemon.emplace(command({"avahi-daemon", "-f", (m_folder / "avahi.conf").string(),
                              "--no-drop-root", "--no-chroot", "--no-rlimits", "--no-proc-title"}),
                     environment());
}

void MdnsHost::stopDaemon() {
    m_daemon->signal(SIGTERM);
    if (!m_daemon->waitForEnd()) {
        throw std::runtime_error("avahi-daemon does not end: " + m_daemon->output());
    }
}

void MdnsHost::killDaemon() {
    m_daemon->signal(SIGKILL);
    m_daemon->waitForEnd();
}

void MdnsHost::pauseDaemon() {
    m_daemon->signal(SIGSTOP);
}

void MdnsHost::resumeDaemon() {
    m_daemon->signal(SIGCONT);
}

std::vector<std::string> MdnsHost::command(const std::vector<std::string>& arguments) const {
    std::vector<std::string> words = {"nsenter", "-t", std::to_string(m_holder.pid()),
                                      "-m",      "-n", "--"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

std::map<std::string, std::string> MdnsHost::environment() const {
    return {{"DBUS_SYSTEM_BUS_ADDRESS", m_bus.address()}};
}

void MdnsHost::writeConfiguration(const Settings& settings) const {
    std::ofstream configuration(m_folder / "avahi.conf");
    configuration
        << "[server]\nhost-name=" << settings.hostName
        << "\nallow-interfaces=" << settings.interface
        << "\nuse-ipv4=yes\nuse-ipv6=no\n[wide-area]\nenable-wide-area=no\n"
           "[publish]\npublish-workstation=no\n";
    if (!settings.hasAddresses) {
        configuration << "publish-addresses=no\npublish-hinfo=no\n";
    }
}

void MdnsHost::runTool(const std::vector<std::string>& arguments) const {
    ChildProcess tool(command(arguments));
    if (tool.waitForEnd() != 0) {
        throw std::runtime_error(arguments[0] + ": " + tool.output());
    }
}

}  // namespace Hox::Testing
