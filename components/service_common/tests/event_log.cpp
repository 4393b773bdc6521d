#include "event_log.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <memory>

namespace Hox::Service::Fixture {

namespace {

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

EventLog::EventLog(Testing::NotifySocket& notifySocket) : m_notifySocket(notifySocket) {
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
    const auto texts = m_notifySocket.messages();
    for (; m_taken < texts.size(); ++m_taken) {
        m_events.push_back("notify " + texts[m_taken]);
    }
}

}  // namespace Hox::Service::Fixture
