#include <algorithm>

#include "common/require.h"
#include "common/sample_configuration.h"
#include "load_client/cases.h"
#include "load_client/configuration_client.h"
#include "load_client/observer_group.h"
#include "load_client/unary_load.h"
#include "load_client/wire_bytes.h"
#include "obstree.pb.h"

namespace Hox::Benchmarks {

namespace {

constexpr std::size_t maxUpdates = 20000;
constexpr std::size_t maxSnapshots = 10;
constexpr int maxSettings = 10000;  // of one slice, as a request has at most 4 MiB

grpc::ByteBuffer observeRequest(const ConfApi::ConfId& slice) {
    ConfApi::ObserveCapConfReq request;
    *request.mutable_confid() = slice;
    return toBytes(request);
}

}  // namespace

/// Slices that stay.
Figures Cases::fillConfiguration() {
    const Stopwatch stopwatch(m_meter);
    for (int left = m_options.settings; left > 0; left -= maxSettings) {
        ConfigurationClient client(m_loop, connect());
        client.prepare(std::min(left, maxSettings));
        client.update();
    }
    return stopwatch.per(1, "per_second");
}

Figures Cases::updateConfiguration() {
    ConfigurationClient client(m_loop, connect());
    client.prepare(m_options.settings);
    for (int i = 0; i < 3; ++i) {
        client.update();
    }
    std::vector<double> samples;
    const auto end = Clock::now() + m_options.time;
    const Stopwatch stopwatch(m_meter);
    do {
        const auto start = Clock::now();
        client.update();
        samples.push_back(microseconds(Clock::now() - start));
    } while (Clock::now() < end && samples.size() < maxUpdates);
    auto figures = stopwatch.per(samples.size(), "per_second");
    figures["median_us"] = quantile(samples, 0.5);
    // The next case finds the store in the same state as this one, except for a state id.
    client.prepare(0);
    client.update();
    return figures;
}

Figures Cases::configurationSnapshot() {
    const auto channel = connect();
    std::vector<double> samples;
    double processor = 0;  // a single time is too short for the system's clock
    const auto end = Clock::now() + m_options.time;
    do {
        // A new slice each time: a server accepts one observer per slice, and may notice the end of
        // the previous one late.
        ConfigurationClient client(m_loop, channel);
        client.prepare(m_options.settings);
        client.update();
        ObserverGroup observer(m_loop, channel, configurationMethodName("observeCapConf"), [] {});
        const Stopwatch stopwatch(m_meter);
        const auto start = Clock::now();
        observer.open({observeRequest(client.slice())});
        samples.push_back(microseconds(Clock::now() - start));
        processor += stopwatch.per(1, "per_second")["cpu_us"];
        if (samples.size() == 1) {
            ObserverTree::ObsTreeObserveChangeSet element;
            fromBytes(observer.lastElement(), element);
            require(element.node_change_map_size() >= m_options.settings,
                    "The snapshot does not hold all settings");
        }
        observer.close();
        client.prepare(0);
        client.update();
    } while (Clock::now() < end && samples.size() < maxSnapshots);
    return {{"median_us", quantile(samples, 0.5)},
            {"cpu_us", processor / static_cast<double>(samples.size())}};
}

Figures Cases::createDelay() {
    ConfigurationClient client(m_loop, connect());
    client.prepare(m_options.settings);
    client.update();
    ConfApi::UpdateSysConfReq save;
    save.mutable_update_type()->set_savechanges(true);
    UnaryLoad saver(m_loop, connect(), configurationMethodName("updateSysConf"), {toBytes(save)});
    UnaryLoad writer(m_loop, connect(), methodName("createStateNotification"), createRequests());
    for (int i = 0; i < 50; ++i) {
        writer.callOnce();
    }

    std::vector<double> samples;
    const auto end = Clock::now() + m_options.time;
    saver.start(m_options.isSaving ? 1 : 0, [end] { return Clock::now() < end; });
    while (Clock::now() < end) {
        const auto start = Clock::now();
        writer.callOnce();
        samples.push_back(microseconds(Clock::now() - start));
    }
    saver.finish();
    client.prepare(0);
    client.update();
    return {{"median_us", quantile(samples, 0.5)},
            {"p99_us", quantile(samples, 0.99)},
            {"saves", static_cast<double>(saver.answered())}};
}

}  // namespace Hox::Benchmarks
