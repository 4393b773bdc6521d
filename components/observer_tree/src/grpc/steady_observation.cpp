#include "grpc/steady_observation.h"

#include <utility>

#include "grpc/non_polling_queue.h"

namespace Hox::ObserverTree {

namespace {

using TimePoint = std::chrono::system_clock::time_point;

/// From the answer to the probe until an observation without an element is one without content.
constexpr std::chrono::milliseconds grace{1000};

/// A pattern that no tree accepts: the refusal shows that the service has handled what came before.
constexpr const char* refusedPattern = "";

}  // namespace

SteadyObservation::SteadyObservation(const GrpcProxyObserverTree& tree,
                                     const OwnedRpcMethod& method, const std::string& keyPattern)
    : m_queue(tree.inProcess() ? makeNonPollingQueue() : std::make_unique<grpc::CompletionQueue>()),
      m_stream(*m_queue, *tree.channel(), method, keyPattern),
      m_probe(*m_queue, *tree.channel(), method, refusedPattern),
      m_graceEnd(TimePoint::max()) {}

SteadyObservation::~SteadyObservation() {
    m_queue->Shutdown();
    void* tag = nullptr;
    bool isOk = false;
    m_queue->Next(&tag, &isOk);  // gRPC requires Next() until the queue has ended
}

SteadyObservation::Event SteadyObservation::next() {
    using News = ObserveStream::News;
    if (std::exchange(m_hasElement, false)) {
        m_stream.readNext();
    }
    while (!m_stream.hasEnded() || !m_probe.hasEnded()) {
        void* tag = nullptr;
        bool isOk = false;
        if (m_queue->AsyncNext(&tag, &isOk, m_graceEnd) == grpc::CompletionQueue::TIMEOUT) {
            m_graceEnd = TimePoint::max();
            m_hasContent = true;
            return Event::Nothing;
        }
        const bool isOfProbe = tag == &m_probe;
        const auto news = (isOfProbe ? m_probe : m_stream).take(isOk);
        if (isOfProbe && news == News::Element) {
            onProbeAnswered();
        } else if (!isOfProbe && news != News::None) {
            m_isProbeUseless = true;
            m_graceEnd = TimePoint::max();
            m_probe.cancel();
            if (news == News::Element) {
                return eventOfElement();
            }
        }
    }
    return Event::End;
}

SteadyObservation::Event SteadyObservation::eventOfElement() {
    m_hasElement = true;
    if (element().observestatus().statuscode() != ProtoStatus::OK) {
        return Event::Refusal;
    }
    return std::exchange(m_hasContent, true) ? Event::Change : Event::Content;
}

void SteadyObservation::onProbeAnswered() {
    if (!m_isProbeUseless) {
        m_graceEnd = std::chrono::system_clock::now() + grace;
    }
    m_probe.cancel();
    m_probe.readNext();
}

void SteadyObservation::cancel() {
    m_stream.cancel();
    m_probe.cancel();
}

}  // namespace Hox::ObserverTree
