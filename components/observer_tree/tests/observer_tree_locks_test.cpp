#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <future>
#include <mutex>

#include "hox/cpputil/log/logsystem.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using testing::ElementsAre;
using TestKit::message;
using TestKit::onUpdateWrite;
using TestKit::pattern;
using TestKit::update;

/// A tree that exposes its locks.
class OpenTree : public ObserverTree {
public:
    using ObserverTreeHandlerReg::handlerLock;
    using ObserverTreeOps::dataLock;
};

/// Whether another thread would block on the lock now.
bool isHeld(std::recursive_mutex& lock) {
    return std::async(std::launch::async,
                      [&lock] {
                          const std::unique_lock<std::recursive_mutex> attempt(lock,
                                                                               std::try_to_lock);
                          return !attempt.owns_lock();
                      })
        .get();
}

/// Records for each log record whether a lock is held.
class LockNotes final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    explicit LockNotes(std::recursive_mutex& lock) : m_lock(lock) {}

    std::vector<bool> take() { return std::exchange(m_notes, {}); }

protected:
    void sink_it_(const spdlog::details::log_msg& /*msg*/) override {
        m_notes.push_back(isHeld(m_lock));
    }
    void flush_() override {}

private:
    std::recursive_mutex& m_lock;
    std::vector<bool> m_notes;
};

TEST(TreeLocks, OfHandlersIsHeldByEachRegistration) {
    const std::string loggerName =
        "observer_tree_handler_reg.h::Hox::ObserverTree::ObserverTreeHandlerReg";
    const Hox::Testing::LogCapture log(loggerName);
    OpenTree tree;
    const auto notes = std::make_shared<LockNotes>(*tree.handlerLock());
    auto& sinks = Hox::Log::getLogsystem()->getLogger(loggerName)->sinks();
    sinks.push_back(notes);
    const auto hook = [](const ObserveReq&, const ObserverCallback&) {};

    // Each creates a node, which is traced.
    onUpdateWrite(tree, "/unary", "/unary");
    EXPECT_THAT(notes->take(), ElementsAre(true));
    tree.registerObserveHandler<ObserveReq>("/observe", [](const auto&, const auto&) {});
    EXPECT_THAT(notes->take(), ElementsAre(true));
    tree.registerNewObserverHandler<ObserveReq>("/new", hook);
    EXPECT_THAT(notes->take(), ElementsAre(true));
    tree.registerObserverGoneHandler<ObserveReq>("/gone", hook);
    EXPECT_THAT(notes->take(), ElementsAre(true));
    tree.registerDefaultObserveHandler("/default");
    EXPECT_THAT(notes->take(), ElementsAre(true));
    EXPECT_FALSE(isHeld(*tree.handlerLock()));
    sinks.pop_back();
}

TEST(TreeLocks, AreBothHeldWhileHandlersHooksAndObserversRun) {
    OpenTree tree;
    std::vector<std::string> held;
    const auto note = [&](const std::string& place) {
        held.push_back(place + (isHeld(*tree.handlerLock()) ? " handlers" : "") +
                       (isHeld(*tree.dataLock()) ? " data" : ""));
    };
    TestKit::onUpdate(tree, "/a", [&](const std::string& text, DataTree& data) {
        note(text);
        data.insert_or_assign("/a", TestKit::value(text));
    });
    tree.registerObserveHandler<ObserveReq>(
        "/observe", [&](const ChangeSetType&, const ObserverCallbackMap<ObserveReq>& observers) {
            note(observers.empty() ? "changes" : "snapshot");
        });
    tree.registerNewObserverHandler<ObserveReq>(
        "/observe",
        [&](const ObserveReq& request, const ObserverCallback&) { note(request.key_pattern()); });
    update(tree, "/a", "typed");
    tree.unaryOpCast<UnaryOps::UPDATE>("/a", message("cast"));
    auto request = message("given over");
    tree.unaryOpCast<UnaryOps::UPDATE>("/a", std::move(request));
    const auto constant = message("kept");
    tree.unaryOpCast<UnaryOps::UPDATE>("/a", constant);
    tree.observe<ObserveReq>("/observe", pattern("observe"), {}, 0);
    tree.observeCast("/observe", pattern("observe cast"), {}, 0);
    const std::string both = " handlers data";
    EXPECT_THAT(held, ElementsAre("typed" + both, "changes" + both, "cast" + both, "changes" + both,
                                  "given over" + both, "changes" + both, "kept" + both,
                                  "changes" + both, "observe" + both, "snapshot" + both,
                                  "observe cast" + both, "snapshot" + both));
    EXPECT_FALSE(isHeld(*tree.handlerLock()));
    EXPECT_FALSE(isHeld(*tree.dataLock()));
}

}  // namespace
}  // namespace Hox::ObserverTree
