#pragma once

#include <google/protobuf/message.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hox/observer_tree/cruro_node.h"
#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/status.h"

namespace Hox::ObserverTree {

/// The base of all messages that a tree handles.
using BaseMsgType = google::protobuf::Message;

/// The one kind of node that trees are made of.
using TreeNode = CRURONode<BaseMsgType, DataTree, ChangeSetType, Status>;

/// Function tree address to node, ordered by address.
using FunctionTree = std::map<const std::string, std::shared_ptr<TreeNode>>;

/// The nodes with an observe handler, in the order of registration and delivery.
using ObserveNodes = std::vector<std::shared_ptr<TreeNode>>;

/// The return type of a unary handler.
template <typename ReturnMsgType>
using UnaryHandlerReturnType = TreeNode::UnaryHandlerReturnType<ReturnMsgType>;

/// Serves one unary operation.
template <typename InMsg, typename ReturnMsg>
using UnaryHandler = TreeNode::UnaryHandler<InMsg, ReturnMsg>;

/// The callback of an observer.
using ObserverCallback = TreeNode::ObserverCallback;

/// The observers of a node.
template <typename InMsg>
using ObserverCallbackMap = TreeNode::ObserverCallbackMap<InMsg>;

/// Keeps an observer registered.
template <typename InMsg>
using ObserveRaiiHandleType = TreeNode::ObserveRaiiHandleType<InMsg>;

}  // namespace Hox::ObserverTree
