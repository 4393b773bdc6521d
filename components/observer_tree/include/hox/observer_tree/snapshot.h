#pragma once

#include <utility>

namespace Hox::ObserverTree {

/// Adds the elements of a tree whose keys `selects` accepts to a change set of lower keys, each as
/// a new key with its value.
///
/// If `selects` throws, the walk ends with that element, which is added: a later selection from the
/// change set meets the exception then.
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
