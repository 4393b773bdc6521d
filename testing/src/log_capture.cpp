#include "hox/testing/log_capture.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>

#include "hox/cpputil/log/logsystem.h"

namespace Hox::Testing {

/// One capture: its filter, its records, and the levels that it must restore.
struct LogCapture::Capture {
    std::optional<std::string> loggerName;
    spdlog::level::level_enum level = spdlog::level::trace;
    std::vector<LogRecord> records;
    std::vector<std::pair<std::shared_ptr<spdlog::logger>, spdlog::level::level_enum>> formerLevels;

    bool takes(const std::string& name) const { return !loggerName || *loggerName == name; }

    void apply(const std::shared_ptr<spdlog::logger>& logger) {
        if (takes(logger->name())) {
            formerLevels.emplace_back(logger, logger->level());
            logger->set_level(level);
        }
    }
};

/// The sink of all loggers: it passes each record to the existing captures. There is one per
/// process, so that the sink lists of loggers never change while a thread logs.
class LogCapture::Hub : public spdlog::sinks::sink {
public:
    static std::shared_ptr<Hub> instance() {
        static const auto hub = std::make_shared<Hub>();
        return hub;
    }

    void log(const spdlog::details::log_msg& msg) override {
        const LogRecord record{std::string(msg.logger_name.data(), msg.logger_name.size()),
                               msg.level, std::string(msg.payload.data(), msg.payload.size())};
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& capture : m_captures) {
            if (capture->takes(record.logger) && record.level >= capture->level) {
                capture->records.push_back(record);
            }
        }
    }
    void flush() override {}
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

    void begin(const std::shared_ptr<Capture>& capture) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        spdlog::apply_all([&](const std::shared_ptr<spdlog::logger>& logger) {
            if (!logger->name().empty()) {
                attach(*logger);
                capture->apply(logger);
            }
        });
        m_captures.push_back(capture);
    }

    void end(const std::shared_ptr<Capture>& capture) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_captures.erase(std::find(m_captures.begin(), m_captures.end(), capture));
        for (const auto& [logger, level] : capture->formerLevels) {
            logger->set_level(level);
        }
    }

    void adopt(const std::shared_ptr<spdlog::logger>& logger) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& capture : m_captures) {
            capture->apply(logger);
        }
    }

    std::vector<LogRecord> records(const Capture& capture) const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return capture.records;
    }

    void clear(Capture& capture) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        capture.records.clear();
    }

private:
    void attach(spdlog::logger& logger) {
        auto& sinks = logger.sinks();
        if (std::none_of(sinks.begin(), sinks.end(),
                         [this](const auto& other) { return other.get() == this; })) {
            sinks.push_back(instance());
        }
    }

    mutable std::mutex m_mutex;  // taken before spdlog's own mutexes
    // Oldest first. The mutex also guards the records and previous levels of the captures.
    std::vector<std::shared_ptr<Capture>> m_captures;  // GUARDED_BY(m_mutex)
};

/// Creates loggers whose only sink is the hub.
class LogCapture::Logsystem : public Log::ILogsystem {
public:
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name) override {
        return getLogger(name, spdlog::level::info);
    }

    std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                              spdlog::level::level_enum level) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (auto existing = spdlog::get(name)) {
            return existing;
        }
        auto logger = std::make_shared<spdlog::logger>(name, Hub::instance());
        logger->set_level(level);
        spdlog::details::registry::instance().register_logger(logger);
        Hub::instance()->adopt(logger);
        return logger;
    }

    void shutdown() override { spdlog::shutdown(); }

private:
    std::mutex m_mutex;  // taken before the hub's mutex
};

LogCapture::LogCapture(spdlog::level::level_enum level) : LogCapture(nullptr, level) {}

LogCapture::LogCapture(const std::string& loggerName, spdlog::level::level_enum level)
    : LogCapture(&loggerName, level) {}

LogCapture::LogCapture(const std::string* loggerName, spdlog::level::level_enum level)
    : m_hub(Hub::instance()), m_capture(std::make_shared<Capture>()) {
    if (loggerName != nullptr) {
        m_capture->loggerName = *loggerName;
    }
    m_capture->level = level;
    Log::setLogsystem(std::make_unique<Logsystem>());
    m_hub->begin(m_capture);
}

LogCapture::~LogCapture() {
    m_hub->end(m_capture);
}

std::vector<LogRecord> LogCapture::records() const {
    return m_hub->records(*m_capture);
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> result;
    for (auto& record : records()) {
        result.push_back(std::move(record.text));
    }
    return result;
}

std::vector<std::string> LogCapture::textsAt(spdlog::level::level_enum level) const {
    std::vector<std::string> result;
    for (auto& record : records()) {
        if (record.level == level) {
            result.push_back(std::move(record.text));
        }
    }
    return result;
}

std::vector<std::string> LogCapture::textsOf(const std::string& loggerName) const {
    std::vector<std::string> result;
    for (auto& record : records()) {
        if (record.logger == loggerName) {
            result.push_back(std::move(record.text));
        }
    }
    return result;
}

bool LogCapture::contains(const std::string& text) const {
    return containsInOrder({text});
}

bool LogCapture::containsInOrder(const std::vector<std::string>& texts) const {
    auto expected = texts.begin();
    for (const auto& record : records()) {
        if (expected != texts.end() && record.text == *expected) {
            ++expected;
        }
    }
    return expected == texts.end();
}

void LogCapture::clear() {
    m_hub->clear(*m_capture);
}

}  // namespace Hox::Testing
