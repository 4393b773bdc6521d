#include "store_connection.h"

#include "hox/cpputil/assertion/assertion.h"

namespace Hox::Capability::Configuration::StoreConnection {

bool await(const Hox::ObserverTree::GrpcProxyObserverTree& store, StoreWait& wait,
           std::chrono::steady_clock::duration limit) {
    while (!wait.mustEnd()) {
        if (store.waitForConnected(std::chrono::system_clock::now() + StoreWait::step)) {
            return true;
        }
        // The text of the one call that these steps stand for.
        Hox::CppUtil::getAssertion().assertTrue(
            wait.duration() < limit,
            "m_confProxy->waitForConnected(std::chrono::system_clock::now() + "
            "std::chrono::hours(1))",
            __FILE__, __LINE__);
    }
    return false;
}

}  // namespace Hox::Capability::Configuration::StoreConnection
