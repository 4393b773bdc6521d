#include "service_initializer/signal_block.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <thread>
#include <vector>

namespace Hox::Service {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The signals that the calling thread blocks; SIGHUP represents all others.
std::vector<int> blocked() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::vector<int> members;
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        if (sigismember(&mask, number) == 1) {
            members.push_back(number);
        }
    }
    return members;
}

/// Runs the action on a separate thread, whose mask ends with it.
template <typename Action>
void onAnotherThread(Action action) {
    std::thread(action).join();
}

TEST(SignalBlock, HoldsBothSignalsBackOnItsThreadAndNoOther) {
    onAnotherThread([] {
        {
            const SignalBlock block;
            EXPECT_THAT(blocked(), ElementsAre(SIGINT, SIGTERM));
        }
        EXPECT_THAT(blocked(), IsEmpty());
    });
    EXPECT_THAT(blocked(), IsEmpty());
}

TEST(SignalBlock, LeavesTheMaskAsItFoundIt) {
    onAnotherThread([] {
        sigset_t others;
        sigemptyset(&others);
        sigaddset(&others, SIGHUP);
        sigaddset(&others, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &others, nullptr);
        {
            const SignalBlock outer;
            { const SignalBlock inner; }
            EXPECT_THAT(blocked(), ElementsAre(SIGHUP, SIGINT, SIGTERM));
        }
        EXPECT_THAT(blocked(), ElementsAre(SIGHUP, SIGTERM));
    });
}

TEST(SignalBlock, KnowsASignalThatWaits) {
    onAnotherThread([] {
        const auto former = std::signal(SIGTERM, SIG_IGN);
        SignalBlock::note();
        EXPECT_FALSE(SignalBlock::hasPending()) << "nothing is held back";
        std::signal(SIGTERM, [](int /*number*/) {});
        {
            const SignalBlock block;
            EXPECT_FALSE(SignalBlock::hasPending());
            pthread_kill(pthread_self(), SIGTERM);
            EXPECT_TRUE(SignalBlock::hasPending());
        }
        {
            const SignalBlock block;
            EXPECT_FALSE(SignalBlock::hasPending());
            SignalBlock::note();
            EXPECT_TRUE(SignalBlock::hasPending());
            onAnotherThread([] { EXPECT_TRUE(SignalBlock::hasPending()); });
        }
        { const SignalBlock next; }
        EXPECT_FALSE(SignalBlock::hasPending());
        std::signal(SIGTERM, former);
    });
}

TEST(SignalBlock, MayLastForever) {
    onAnotherThread([] {
        SignalBlock::forever();
        { const SignalBlock block; }
        EXPECT_THAT(blocked(), ElementsAre(SIGINT, SIGTERM));
    });
}

}  // namespace
}  // namespace Hox::Service
