#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <any>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/sample_notifications.h"
#include "hox/observer_tree/change_set_conversion.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/path_manipulation.h"
#include "obstree.pb.h"

namespace Hox::Benchmarks {

namespace {

namespace Tree = Hox::ObserverTree;

using CreateReq = Api::CreateStateNotificationReq;
using CreateResp = Api::CreateStateNotificationResp;

/// A tree with one handler that stores what it gets, as a capability would.
class Fixture {
public:
    explicit Fixture(int keys) {
        m_tree.registerUnaryOpHandler<Tree::UnaryOps::CREATE, CreateReq, CreateResp>(
            "/state/notifications", [](const CreateReq& request, Tree::DataTree& tree) {
                tree.insert_or_assign(
                    latestKey(request.statenotification()),
                    std::make_shared<const Tree::DataTreeVal>(request.statenotification()));
                return Tree::UnaryHandlerReturnType<CreateResp>{std::make_unique<CreateResp>(),
                                                                Tree::Status()};
            });
        m_tree.registerDefaultObserveHandler("/state");
        for (int i = 0; i < keys; ++i) {
            create(request(i));
        }
    }

    static CreateReq request(int origin) {
        CreateReq result;
        *result.mutable_statenotification() = sampleNotification(origin);
        return result;
    }

    void create(const CreateReq& request) {
        m_tree.callApiOp<Tree::UnaryOps::CREATE, CreateReq, CreateResp>("/state/notifications",
                                                                        request);
    }

    std::any observe(const std::string& keyPattern) {
        Tree::ObserveReq request;
        request.set_key_pattern(keyPattern);
        return m_tree.observe<Tree::ObserveReq>(
            "/state", request,
            [](const auto& changes, const auto& /*status*/) {
                benchmark::DoNotOptimize(changes.size());
            },
            0);
    }

private:
    Tree::ObserverTree m_tree;
};

void parseKey(benchmark::State& state) {
    const Tree::PathManipulation path;
    const auto key = latestKey(sampleNotification(1));
    for (auto _ : state) {
        benchmark::DoNotOptimize(path.parsePath(Tree::PathType::Key, key));
    }
}
BENCHMARK(parseKey);

void matchKey(benchmark::State& state) {
    const Tree::PathManipulation path;
    const auto key = path.parsePath(Tree::PathType::Key, latestKey(sampleNotification(1)));
    const auto pattern = path.parsePath(Tree::PathType::KeyPattern, watchAllPattern);
    for (auto _ : state) {
        benchmark::DoNotOptimize(path.matches(key, pattern));
    }
}
BENCHMARK(matchKey);

void insertWithoutObservers(benchmark::State& state) {
    Fixture fixture(static_cast<int>(state.range(0)));
    const auto request = Fixture::request(0);
    for (auto _ : state) {
        fixture.create(request);
    }
}
BENCHMARK(insertWithoutObservers)->Arg(1)->Arg(10000);

std::string watchAll(int /*observer*/) {
    return "/state/notifications/latest/**";
}

std::string watchMarker(int observer) {
    return latestKey(markerNotification(observer));
}

/// Watches a subtree without changes.
std::string watchQuietService(int observer) {
    return fmt::format("/state/notifications/latest/service-{}/**", observer);
}

/// Watches a type that no service reports.
std::string watchQuietType(int observer) {
    return fmt::format("/state/notifications/latest/*/Type{}/**", observer);
}

void deliver(benchmark::State& state, std::string (*patternOf)(int observer)) {
    Fixture fixture(1);
    std::vector<std::any> observers;
    observers.reserve(static_cast<std::size_t>(state.range(0)));
    for (int i = 0; i < state.range(0); ++i) {
        observers.push_back(fixture.observe(patternOf(i)));
    }
    const auto request = Fixture::request(0);
    for (auto _ : state) {
        fixture.create(request);
    }
}
BENCHMARK_CAPTURE(deliver, silentObservers, watchMarker)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK_CAPTURE(deliver, listeningObservers, watchAll)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK_CAPTURE(deliver, quietSubtrees, watchQuietService)->Arg(20)->Arg(2000);
BENCHMARK_CAPTURE(deliver, quietTypes, watchQuietType)->Arg(20)->Arg(2000);

/// Observers arrive and leave between the changes, beside observers that stay.
void deliverAmongArrivals(benchmark::State& state) {
    Fixture fixture(1);
    std::vector<std::any> observers;
    for (int i = 1; i <= state.range(0); ++i) {
        observers.push_back(fixture.observe(watchMarker(i)));
    }
    const auto request = Fixture::request(0);
    for (auto _ : state) {
        const auto passing = fixture.observe(watchMarker(0));
        fixture.create(request);
    }
}
BENCHMARK(deliverAmongArrivals)->Arg(20)->Arg(2000);

void snapshot(benchmark::State& state) {
    Fixture fixture(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(fixture.observe(watchAllPattern));
    }
}
BENCHMARK(snapshot)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

void snapshotOfOneKey(benchmark::State& state) {
    Fixture fixture(static_cast<int>(state.range(0)));
    const auto key = latestKey(sampleNotification(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(fixture.observe(key));
    }
}
BENCHMARK(snapshotOfOneKey)->Arg(1)->Arg(50000);

Tree::ChangeSetType changesOf(int keys) {
    Tree::ChangeSetType changes;
    for (int i = 0; i < keys; ++i) {
        const auto notification = sampleNotification(i);
        changes[latestKey(notification)].push_back(
            {std::make_shared<const Tree::DataTreeVal>(notification), nullptr});
    }
    return changes;
}

void convertFreshValues(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        const auto changes = changesOf(static_cast<int>(state.range(0)));
        state.ResumeTiming();
        Tree::ObsTreeObserveChangeSet message;
        Tree::toWire(changes, message);
        benchmark::DoNotOptimize(message.ByteSizeLong());
    }
}
BENCHMARK(convertFreshValues)->Arg(10)->Arg(10000)->Unit(benchmark::kMicrosecond);

void convertPackedValues(benchmark::State& state) {
    const auto changes = changesOf(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        Tree::ObsTreeObserveChangeSet message;
        Tree::toWire(changes, message);
        benchmark::DoNotOptimize(message.ByteSizeLong());
    }
}
BENCHMARK(convertPackedValues)->Arg(3)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace

}  // namespace Hox::Benchmarks

BENCHMARK_MAIN();
