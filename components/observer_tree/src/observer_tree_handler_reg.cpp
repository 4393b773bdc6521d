#include "hox/observer_tree/observer_tree_handler_reg.h"

#include <spdlog/logger.h>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::ObserverTree {

ObserverTreeHandlerReg::ObserverTreeHandlerReg(std::shared_ptr<FunctionTree> functionTree,
                                               std::shared_ptr<std::recursive_mutex> handlerLock,
                                               std::shared_ptr<ObserveNodes> observeNodes)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_handlerLock(std::move(handlerLock)),
      m_functionTree(std::move(functionTree)),
      m_observeNodes(std::move(observeNodes)) {}

void ObserverTreeHandlerReg::checkAddress(const std::string& key) {
    PathManipulation().parsePath(PathType::FunctionTreeAddress, key);
}

std::shared_ptr<TreeNode> ObserverTreeHandlerReg::findOrCreateNode(const std::string& key,
                                                                   const char* operationText) {
    auto& node = (*m_functionTree)[key];
    if (!node) {
        m_logger->log(Hox::Log::here(), spdlog::level::trace,
                      "Registering unary handler {} for key {}", operationText, key);
        node = std::make_shared<TreeNode>();
    }
    return node;
}

}  // namespace Hox::ObserverTree
