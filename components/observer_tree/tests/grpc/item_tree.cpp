#include "grpc/item_tree.h"

#include <memory>

#include "hox/observer_tree/path_error.h"

namespace Hox::ObserverTree::Test {

namespace {

UnaryHandlerReturnType<Answer> answer(const char* operation, const Item& item) {
    auto message = std::make_unique<Answer>();
    message->set_text(std::string(operation) + " " + item.name());
    return {std::move(message), Status()};
}

UnaryHandlerReturnType<Answer> readItem(const Item& item) {
    if (item.name() == "fail") {
        return {std::make_unique<Answer>(), Status(ProtoStatus::NOT_FOUND, "no such item")};
    }
    if (item.name() == "nothing") {
        return {nullptr, Status()};
    }
    return answer("read", item);
}

}  // namespace

void registerItemHandlers(ObserverTree& tree, ItemHandlers& handlers) {
    const auto write = [](const char* operation, const Item& item, DataTree& data) {
        data.insert_or_assign("/items/" + item.name(), std::make_shared<const DataTreeVal>(item));
        return answer(operation, item);
    };
    tree.registerUnaryOpHandler<UnaryOps::CREATE, Item, Answer>(
        "/items",
        [write](const Item& item, DataTree& data) { return write("created", item, data); });
    tree.registerUnaryOpHandler<UnaryOps::READ, Item, Answer>(
        "/items", [](const Item& item, DataTree& /*data*/) { return readItem(item); });
    tree.registerUnaryOpHandler<UnaryOps::UPDATE, Item, Answer>(
        "/items",
        [write](const Item& item, DataTree& data) { return write("updated", item, data); });
    tree.registerUnaryOpHandler<UnaryOps::REMOVE, Item, Answer>(
        "/items", [](const Item& item, DataTree& data) {
            data.erase("/items/" + item.name());
            return answer("removed", item);
        });
    tree.registerDefaultObserveHandler("/items");
    tree.registerObserverGoneHandler<ObserveReq>(
        "/items", [&handlers](const ObserveReq& /*request*/, const ObserverCallback& /*callback*/) {
            --handlers.observers;
        });
    // Replaces the hook of the default handler and answers malformed patterns in the same way.
    tree.registerNewObserverHandler<ObserveReq>(
        "/items", [&handlers](const ObserveReq& request, const ObserverCallback& callback) {
            ++handlers.observers;
            ++handlers.allObservers;
            try {
                PathManipulation().parsePath(PathType::KeyPattern, request.key_pattern());
            } catch (const PathError& error) {
                callback({}, Status(ProtoStatus::INVALID_ARGUMENT, error.what()));
            }
        });
}

void createItem(ObserverTree& tree, const std::string& name, int count) {
    Item item;
    item.set_name(name);
    item.set_count(count);
    tree.callApiOp<UnaryOps::CREATE, Item, Answer>("/items", item);
}

int currentCount(const ObsTreeObserveChangeSet& element, const std::string& key) {
    const auto found = element.node_change_map().find(key);
    Item item;
    if (found == element.node_change_map().end() ||
        !found->second.nodepairlist(0).currentmessage().UnpackTo(&item)) {
        return -1;
    }
    return item.count();
}

}  // namespace Hox::ObserverTree::Test
