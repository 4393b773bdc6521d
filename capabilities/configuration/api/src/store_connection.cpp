#include "store_connection.h"

#include <chrono>

#include "hox/cpputil/assertion/assertion.h"

namespace Hox::Capability::Configuration::StoreConnection {

namespace {

constexpr std::chrono::hours limit{1};

/// Whether the store is connected after one step.
bool isConnected(const Hox::ObserverTree::GrpcProxyObserverTree& store) {
    return store.waitForConnected(std::chrono::system_clock::now() + StoreWait::step);
}

}  // namespace

bool await(const Hox::ObserverTree::GrpcProxyObserverTree& store, StoreWait& wait) {
    while (!wait.mustEnd()) {
        if (isConnected(store)) {
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

bool awaitForEver(const Hox::ObserverTree::GrpcProxyObserverTree& store, StoreWait& wait) {
    while (!wait.mustEnd()) {
        if (isConnected(store)) {
            return true;
        }
    }
    return false;
}

}  // namespace Hox::Capability::Configuration::StoreConnection
