#pragma once

#include <spdlog/fwd.h>

#include <memory>
#include <string>

namespace Hox::ObserverTree {

/// Logs what the handlers and observers of a node have thrown.
///
/// Keeps the templates of the nodes free of the logging library. Callable from any thread.
class NodeLog {
public:
    /// Logs to the logger of this name.
    explicit NodeLog(const std::string& loggerName);

    /// A call that failed, as an error, and then its message after the label.
    void callFailed(const std::string& text, const std::string& label,
                    const std::string& message) const;

    /// A delivery to the observers that failed, as an error.
    void deliveryFailed(const std::string& reason) const;

private:
    const std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace Hox::ObserverTree
