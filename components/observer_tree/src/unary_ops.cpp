#include "hox/observer_tree/unary_ops.h"

namespace Hox::ObserverTree {

const char* toString(UnaryOps operation) {
    switch (operation) {
        case UnaryOps::CREATE:
            return "CREATE";
        case UnaryOps::READ:
            return "READ";
        case UnaryOps::UPDATE:
            return "UPDATE";
        case UnaryOps::REMOVE:
            return "REMOVE";
    }
    return "INVALID_OPERATION";
}

}  // namespace Hox::ObserverTree
