#pragma once

#include <utility>

namespace Hox::ObserverTree {

/// Adds elements of a tree to a change set of lower keys, each as a new key with its value, as far
/// as `selects` says so for their keys.
///
/// Where `selects` throws, the walk ends with that element, which is added: who selects from the
/// change set anew meets the exception then.
template <typename Changes, typename Elements, typename Selects>
void addToSnapshot(Changes& snapshot, const Elements& elements, const Selects& selects) {
    for (const auto& [key, value] : elements) {
        bool isLast = false;
        try {
            if (!selects(key)) {
                continue;
            }
        } catch (...) {
            isLast = true;
        }
        const auto added =
            snapshot.emplace_hint(snapshot.end(), key, typename Changes::mapped_type());
        added->second.push_back({value, nullptr});
        if (isLast) {
            return;
        }
    }
}

}  // namespace Hox::ObserverTree
