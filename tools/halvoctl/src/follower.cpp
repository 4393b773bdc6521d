#include "follower.h"

#include <google/protobuf/empty.pb.h>

#include <algorithm>
#include <utility>

#include "call_error.h"
#include "obstree.pb.h"
#include "symbol_names.h"

namespace Hox::Ctl {

using google::protobuf::MethodDescriptor;
using ObserverTree::ObserveReq;
using ObserverTree::ObsTreeObserveChangeSet;
using ObserverTree::ObsTreeOptions;
using Clock = std::chrono::system_clock;

namespace {

constexpr std::chrono::milliseconds firstPause(200);
constexpr std::chrono::milliseconds longestPause(5000);

/// How long a snapshot may stay away after the answer to a later call: a service sends nothing at
/// all for a pattern that matches nothing.
constexpr std::chrono::seconds snapshotTime(1);

/// Served by every service of the frame.
constexpr auto healthCheck = "/grpc.health.v1.Health/Check";

/// Whether the service will give the same answer again.
bool isFinal(grpc::StatusCode code) {
    switch (code) {
        case grpc::StatusCode::INVALID_ARGUMENT:
        case grpc::StatusCode::NOT_FOUND:
        case grpc::StatusCode::PERMISSION_DENIED:
        case grpc::StatusCode::UNAUTHENTICATED:
        case grpc::StatusCode::FAILED_PRECONDITION:
        case grpc::StatusCode::OUT_OF_RANGE:
        case grpc::StatusCode::UNIMPLEMENTED:
            return true;
        default:
            return false;
    }
}

/// A method without parameters that reads the tree that is observed: its answer comes after the
/// snapshot of an earlier observation.
std::string probeOf(const MethodDescriptor& observe) {
    const auto& service = *observe.service();
    for (int index = 0; index < service.method_count(); ++index) {
        const auto& method = *service.method(index);
        if (ServiceModel::bindingOf(method).type() == ObsTreeOptions::READ &&
            method.input_type()->field_count() == 0) {
            return ServiceModel::pathOf(method);
        }
    }
    return healthCheck;
}

bool observesKeys(const MethodDescriptor& method) {
    return ServiceModel::bindingOf(method).type() == ObsTreeOptions::OBSERVE &&
           method.server_streaming() && !method.client_streaming() &&
           method.input_type()->full_name() == ObserveReq::descriptor()->full_name() &&
           method.output_type()->full_name() == ObsTreeObserveChangeSet::descriptor()->full_name();
}

}  // namespace

Follower::Follower(Subject subject, Interrupt& end, Listener listener)
    : m_subject(std::move(subject)),
      m_end(end),
      m_listener(std::move(listener)),
      m_tracker([this](const auto& one, const auto& other) {
          return m_subject.values.areSame(one, other);
      }),
      m_probe(probeOf(m_subject.method)) {}

void Follower::run() {
    auto pause = firstPause;
    while (!m_end.isRequested()) {
        m_isConnected = false;
        const auto start = std::chrono::steady_clock::now();
        std::string reason = "the service has ended the stream";
        try {
            followOnce();
        } catch (const CallError& error) {
            if (!m_hasBeenConnected || isFinal(error.statusCode())) {
                throw;
            }
            reason = error.what();
        }
        // A service that ends each stream at once is not asked again at once.
        if (std::chrono::steady_clock::now() - start > longestPause) {
            pause = firstPause;
        }
        if (m_isConnected) {
            m_listener.note("lost " + m_subject.connection.endpoint() + " (" + reason +
                            "), trying again");
        }
        if (m_end.waitFor(pause)) {
            return;
        }
        pause = std::min(2 * pause, longestPause);
    }
}

void Follower::followOnce() {
    ObserveReq request;
    request.set_key_pattern(m_subject.pattern);
    const auto stream = m_subject.connection.open(ServiceModel::pathOf(m_subject.method), request,
                                                  std::make_unique<ObsTreeObserveChangeSet>());
    awaitAnswer();
    m_isConnected = true;
    if (std::exchange(m_hasBeenConnected, true)) {
        m_listener.note("connected to " + m_subject.connection.endpoint() + " again");
    }
    settle(*stream);
    while (stream->next(Clock::time_point::max()) == ResponseStream::Event::Element) {
        const auto& element = static_cast<const ObsTreeObserveChangeSet&>(stream->element());
        deliver(m_tracker.apply(element));
    }
    stream->check();
}

void Follower::awaitAnswer() const {
    google::protobuf::Empty nothing;
    try {
        m_subject.connection.call(m_probe, nothing, nothing);
    } catch (const CallError& error) {
        if (error.code() != ExitCode::Refused) {
            throw;
        }
    }
}

void Follower::settle(ResponseStream& stream) {
    const auto event = stream.next(Clock::now() + snapshotTime);
    ObsTreeObserveChangeSet snapshot;
    if (event == ResponseStream::Event::Element) {
        snapshot = static_cast<const ObsTreeObserveChangeSet&>(stream.element());
        const auto& status = snapshot.observestatus();
        if (status.statuscode() != ObserverTree::ProtoStatus::OK) {
            throw CallError(grpc::Status(static_cast<grpc::StatusCode>(status.statuscode()),
                                         status.errormessage()));
        }
    } else if (event == ResponseStream::Event::End) {
        return;  // lost: nothing is known about the keys
    } else {
        m_listener.note("nothing matches yet");
    }
    auto changes = m_tracker.applySnapshot(snapshot);
    if (std::exchange(m_subject.hasSnapshot, true)) {
        deliver(std::move(changes));
    }
}

void Follower::deliver(std::vector<Change> changes) const {
    if (!changes.empty()) {
        m_listener.changes(std::move(changes));
    }
}

const MethodDescriptor& observeMethod(const ServiceModel& model, const std::string& service) {
    std::vector<const MethodDescriptor*> found;
    for (const auto* method : model.methods()) {
        const auto& name = method->service()->full_name();
        if (observesKeys(*method) && (service.empty() || endsWithName(name, service))) {
            found.push_back(method);
        }
    }
    if (found.empty()) {
        throw CtlError(ExitCode::Usage, service.empty()
                                            ? "the service has no tree that can be observed"
                                            : "no tree of \"" + service + "\" can be observed");
    }
    if (found.size() > 1) {
        std::string names;
        for (const auto* method : found) {
            names += "\n  " + method->service()->full_name();
        }
        throw CtlError(ExitCode::Usage, "several trees can be observed:" + names,
                       "choose one with --service");
    }
    return *found.front();
}

}  // namespace Hox::Ctl
