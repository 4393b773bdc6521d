#include "load_client/cases.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

#include "common/require.h"
#include "common/sample_notifications.h"
#include "load_client/measuring.h"
#include "load_client/unary_load.h"
#include "load_client/wire_bytes.h"
#include "obstree.pb.h"

namespace Hox::Benchmarks {

namespace {

constexpr std::size_t maxCalls = 1000000;
constexpr std::size_t maxSnapshots = 20;
constexpr auto observeMethod = "observeStateNotifications";

grpc::ByteBuffer createRequest(const Api::StateNotification& notification) {
    Api::CreateStateNotificationReq request;
    *request.mutable_statenotification() = notification;
    return toBytes(request);
}

grpc::ByteBuffer observeRequest(const std::string& keyPattern) {
    ObserverTree::ObserveReq request;
    request.set_key_pattern(keyPattern);
    return toBytes(request);
}

}  // namespace

Cases::Cases(const CaseOptions& options) : m_options(options), m_meter(options.process) {}

Figures Cases::run(const std::string& name) {
    const std::map<std::string, Figures (Cases::*)()> cases{
        {"fill", &Cases::fill},
        {"fill-configuration", &Cases::fillConfiguration},
        {"create", &Cases::create},
        {"arrivals", &Cases::arrivals},
        {"create-paced", &Cases::createPaced},
        {"current-state", &Cases::currentState},
        {"notifications", &Cases::notifications},
        {"delay", &Cases::delay},
        {"deliveries", &Cases::deliveries},
        {"snapshot", &Cases::snapshot},
        {"memory", &Cases::memory},
        {"update-configuration", &Cases::updateConfiguration},
        {"configuration-snapshot", &Cases::configurationSnapshot},
        {"create-delay", &Cases::createDelay},
    };
    const auto found = cases.find(name);
    require(found != cases.end(), "No such case");
    return (this->*found->second)();
}

std::shared_ptr<grpc::Channel> Cases::connect() const {
    return connectTo(m_options.target);
}

std::shared_ptr<grpc::Channel> Cases::connectTo(const std::string& target) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    auto channel = grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
    require(channel->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(20)),
            "No connection to the server");
    return channel;
}

std::vector<std::shared_ptr<grpc::Channel>> Cases::connectIdle() const {
    std::vector<std::shared_ptr<grpc::Channel>> channels;
    std::generate_n(std::back_inserter(channels), m_options.connections,
                    [this] { return connect(); });
    return channels;
}

/// On one connection, or each on its own.
std::vector<std::unique_ptr<ObserverGroup>> Cases::openSilentObservers() {
    std::vector<std::unique_ptr<ObserverGroup>> groups;
    const auto size = m_options.isApart ? std::size_t{1} : m_options.observers;
    for (std::size_t first = 0; first < m_options.observers; first += size) {
        groups.push_back(std::make_unique<ObserverGroup>(
            m_loop, connect(), methodName(observeMethod),
            [] { throw std::runtime_error("A silent observer got a change"); }));
        groups.back()->open(markerRequests(first, size));
    }
    return groups;
}

std::vector<grpc::ByteBuffer> Cases::createRequests() const {
    std::vector<grpc::ByteBuffer> requests;
    requests.reserve(static_cast<std::size_t>(m_options.origins));
    for (int i = 0; i < m_options.origins; ++i) {
        auto notification = sampleNotification(i);
        if (!m_options.type.empty()) {
            notification.set_type(m_options.type);
        }
        requests.push_back(createRequest(notification));
    }
    return requests;
}

std::vector<grpc::ByteBuffer> Cases::markerRequests(std::size_t first, std::size_t count) const {
    std::vector<grpc::ByteBuffer> requests;
    requests.reserve(count);
    for (std::size_t i = first; i < first + count; ++i) {
        requests.push_back(observeRequest(latestKey(markerNotification(static_cast<int>(i)))));
    }
    return requests;
}

Figures Cases::fill() {
    auto requests = createRequests();
    for (int i = 0; i < m_options.markers; ++i) {
        requests.push_back(createRequest(markerNotification(i)));
    }
    // Each origin at least once, and the archive full.
    const auto count = std::max(requests.size(), static_cast<std::size_t>(2 * archiveSize));
    UnaryLoad load(m_loop, connect(), methodName("createStateNotification"), std::move(requests));
    const Stopwatch stopwatch(m_meter);
    std::size_t left = count;
    load.run(8, [&left] { return left > 0 && left-- > 0; });
    return stopwatch.per(count, "per_second");
}

Figures Cases::measureUnary(const char* method, std::vector<grpc::ByteBuffer> requests) {
    UnaryLoad load(m_loop, connect(), methodName(method), std::move(requests));
    std::size_t warmUp = 0;
    load.run(m_options.outstanding, [&warmUp] { return ++warmUp <= 50; });
    const auto before = load.answered();
    const auto end = Clock::now() + m_options.time;
    const Stopwatch stopwatch(m_meter);
    load.run(m_options.outstanding, [&load, before, end] {
        return load.answered() - before < maxCalls && Clock::now() < end;
    });
    return stopwatch.per(load.answered() - before, "per_second");
}

Figures Cases::create() {
    const auto idle = connectIdle();
    const auto silent = openSilentObservers();
    auto figures = measureUnary("createStateNotification", createRequests());
    for (const auto& group : silent) {
        group->close();
    }
    return figures;
}

/// Observers come one after the other, with a change after each.
Figures Cases::arrivals() {
    ObserverGroup silent(m_loop, connect(), methodName(observeMethod),
                         [] { throw std::runtime_error("A silent observer got a change"); });
    UnaryLoad writer(m_loop, connect(), methodName("createStateNotification"), createRequests());
    writer.callOnce();
    const Stopwatch stopwatch(m_meter);
    for (std::size_t i = 0; i < m_options.observers; ++i) {
        silent.open(markerRequests(i, 1));
        writer.callOnce();
    }
    auto figures = stopwatch.per(m_options.observers, "per_second");
    silent.close();
    return figures;
}

/// A number of calls per second, each as soon as it is due.
Figures Cases::createPaced() {
    UnaryLoad load(m_loop, connect(), methodName("createStateNotification"), createRequests());
    load.callOnce();
    const auto pause = std::chrono::nanoseconds(std::chrono::seconds(1)) / m_options.rate;
    auto due = Clock::now();
    const auto end = due + m_options.time;
    const auto before = load.answered();
    const Stopwatch stopwatch(m_meter);
    for (; due < end; due += pause) {
        std::this_thread::sleep_until(due);
        load.callOnce();
    }
    return stopwatch.per(load.answered() - before, "per_second");
}

Figures Cases::currentState() {
    UnaryLoad probe(m_loop, connect(), methodName("getCurrentState"),
                    {toBytes(Api::GetCurrentStateReq())});
    Api::GetCurrentStateResp response;
    fromBytes(probe.callOnce(), response);
    require(response.currentstate() == Api::OK, "The current state is not OK");
    return measureUnary("getCurrentState", {toBytes(Api::GetCurrentStateReq())});
}

Figures Cases::notifications() {
    Api::GetStateNotificationsReq request;
    request.set_index(0);
    request.set_typeregex("TestNotificationType$");
    UnaryLoad probe(m_loop, connect(), methodName("getStateNotifications"), {toBytes(request)});
    Api::GetStateNotificationsResp response;
    fromBytes(probe.callOnce(), response);
    require(response.statelist_size() == archiveSize, "The archive is not full");
    return measureUnary("getStateNotifications", {toBytes(request)});
}

Figures Cases::delay() {
    std::vector<double> samples;
    Clock::time_point start;
    ObserverGroup observers(m_loop, connect(), methodName(observeMethod), [&samples, &start] {
        samples.push_back(microseconds(Clock::now() - start));
    });
    observers.open(
        std::vector<grpc::ByteBuffer>(m_options.observers, observeRequest(watchAllPattern)));
    UnaryLoad writer(m_loop, m_options.writer.empty() ? connect() : connectTo(m_options.writer),
                     methodName("createStateNotification"), createRequests());

    const auto writeOne = [this, &start, &observers, &writer] {
        const auto expected = observers.arrivals() + m_options.observers;
        start = Clock::now();
        writer.callOnce();
        m_loop.runUntil("a change",
                        [&observers, expected] { return observers.arrivals() == expected; });
    };
    for (int i = 0; i < 20; ++i) {
        writeOne();
    }
    samples.clear();
    const auto end = Clock::now() + m_options.time;
    const Stopwatch stopwatch(m_meter);
    while (Clock::now() < end) {
        writeOne();
    }
    auto figures = stopwatch.per(samples.size() / m_options.observers, "per_second");
    observers.close();
    figures["median_us"] = quantile(samples, 0.5);
    figures["p99_us"] = quantile(samples, 0.99);
    return figures;
}

Figures Cases::deliveries() {
    ObserverGroup observers(m_loop, connect(), methodName(observeMethod), [] {});
    observers.open(
        std::vector<grpc::ByteBuffer>(m_options.observers, observeRequest(watchAllPattern)));
    UnaryLoad writers(m_loop, connect(), methodName("createStateNotification"), createRequests());
    writers.callOnce();
    m_loop.runUntil("a change",
                    [&observers, this] { return observers.arrivals() == m_options.observers; });

    const auto end = Clock::now() + m_options.time;
    const Stopwatch stopwatch(m_meter);
    writers.run(m_options.outstanding, [end] { return Clock::now() < end; });
    const auto expected = writers.answered() * m_options.observers;
    m_loop.runUntil("all changes",
                    [&observers, expected] { return observers.arrivals() == expected; });
    auto figures = stopwatch.per(expected - m_options.observers, "per_second");
    observers.close();
    return figures;
}

Figures Cases::snapshot() {
    const auto channel = connect();
    std::vector<double> samples;
    const auto end = Clock::now() + m_options.time;
    const Stopwatch stopwatch(m_meter);
    do {
        ObserverGroup observer(m_loop, channel, methodName(observeMethod), [] {});
        const auto start = Clock::now();
        observer.open({observeRequest(snapshotPattern)});
        samples.push_back(microseconds(Clock::now() - start));
        if (samples.size() == 1) {
            ObserverTree::ObsTreeObserveChangeSet element;
            fromBytes(observer.lastElement(), element);
            require(element.node_change_map_size() == m_options.origins,
                    "The snapshot does not hold all origins");
        }
        observer.close();
    } while (Clock::now() < end && samples.size() < maxSnapshots);
    auto figures = stopwatch.per(samples.size(), "per_second");
    figures["median_us"] = quantile(samples, 0.5);
    return figures;
}

Figures Cases::memory() {
    ObserverGroup observers(m_loop, connect(), methodName(observeMethod), [] {});
    observers.open(markerRequests(0, 20));
    const auto before = m_meter.residentBytes();
    observers.open(markerRequests(20, m_options.observers));
    const auto after = m_meter.residentBytes();
    observers.close();
    return {
        {"bytes", static_cast<double>(after - before) / static_cast<double>(m_options.observers)}};
}

}  // namespace Hox::Benchmarks
