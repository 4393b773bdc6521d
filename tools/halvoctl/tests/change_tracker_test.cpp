#include "change_tracker.h"

#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <optional>

namespace Hox::Ctl {

namespace {

using ObserverTree::ObsTreeObserveChangeSet;

google::protobuf::Any packed(const std::string& text) {
    google::protobuf::StringValue value;
    value.set_value(text);
    google::protobuf::Any any;
    any.PackFrom(value);
    return any;
}

bool areEqual(const google::protobuf::Any& one, const google::protobuf::Any& other) {
    return one.value() == other.value();
}

/// Adds a change of the key to the element.
void put(ObsTreeObserveChangeSet& element, const std::string& key,
         const std::optional<std::string>& before, const std::optional<std::string>& after) {
    auto& pair = *(*element.mutable_node_change_map())[key].add_nodepairlist();
    if (before) {
        *pair.mutable_prevmessage() = packed(*before);
    }
    if (after) {
        *pair.mutable_currentmessage() = packed(*after);
    }
}

/// "<kind> <key> <before>-><after>" of each change.
std::vector<std::string> texts(const std::vector<Change>& changes) {
    const auto text = [](const google::protobuf::Any& any) {
        google::protobuf::StringValue value;
        any.UnpackTo(&value);
        return value.value();
    };
    std::vector<std::string> result;
    for (const auto& change : changes) {
        result.push_back(ChangeKind_Name(change.kind()) + " " + change.key() + " " +
                         text(change.previous()) + "->" + text(change.current()));
    }
    return result;
}

using Texts = std::vector<std::string>;

TEST(ChangeTracker, TheFirstSnapshotIsNew) {
    ChangeTracker tracker(areEqual);
    ObsTreeObserveChangeSet snapshot;
    put(snapshot, "/b", {}, "2");
    put(snapshot, "/a", {}, "1");
    EXPECT_EQ(texts(tracker.applySnapshot(snapshot)), (Texts{"ADDED /a ->1", "ADDED /b ->2"}));
}

TEST(ChangeTracker, ChangesAreByKeyAndThoseOfAKeyInOrder) {
    ChangeTracker tracker(areEqual);
    ObsTreeObserveChangeSet element;
    put(element, "/c", {}, "1");
    put(element, "/c", "1", "2");
    put(element, "/b", "x", {});
    put(element, "/a", "x", "y");
    put(element, "/d", {}, {});
    EXPECT_EQ(texts(tracker.apply(element)),
              (Texts{"CHANGED /a x->y", "REMOVED /b x->", "ADDED /c ->1", "CHANGED /c 1->2"}));
}

TEST(ChangeTracker, ALaterSnapshotIsComparedWithWhatWasKnown) {
    ChangeTracker tracker(areEqual);
    ObsTreeObserveChangeSet first;
    for (const auto* key : {"/gone", "/removed", "/same", "/updated"}) {
        put(first, key, {}, "1");
    }
    tracker.applySnapshot(first);
    ObsTreeObserveChangeSet update;
    put(update, "/removed", "1", {});
    put(update, "/updated", "1", "2");
    put(update, "/late", {}, "1");
    tracker.apply(update);
    ObsTreeObserveChangeSet second;
    put(second, "/same", {}, "1");
    put(second, "/updated", {}, "3");
    put(second, "/late", {}, "1");
    put(second, "/new", {}, "1");
    EXPECT_EQ(texts(tracker.applySnapshot(second)),
              (Texts{"ADDED /new ->1", "CHANGED /updated 2->3", "GONE /gone 1->"}));
    EXPECT_EQ(texts(tracker.applySnapshot(second)), Texts{});
}

TEST(ChangeTracker, AValueThatMeansTheSameIsNoChange) {
    ChangeTracker tracker([](const auto&, const auto&) { return true; });
    ObsTreeObserveChangeSet first;
    put(first, "/a", {}, "1");
    tracker.applySnapshot(first);
    ObsTreeObserveChangeSet second;
    put(second, "/a", {}, "another form of 1");
    EXPECT_EQ(texts(tracker.applySnapshot(second)), Texts{});
}

TEST(ChangeTracker, AnEmptySnapshotEndsEverything) {
    ChangeTracker tracker(areEqual);
    ObsTreeObserveChangeSet first;
    put(first, "/a", {}, "1");
    tracker.applySnapshot(first);
    EXPECT_EQ(texts(tracker.applySnapshot({})), Texts{"GONE /a 1->"});
}

}  // namespace

}  // namespace Hox::Ctl
