#include "grpc/observe_stream.h"

namespace Hox::ObserverTree {

ObserveStream::ObserveStream(grpc::CompletionQueue& queue, grpc::ChannelInterface& channel,
                             const OwnedRpcMethod& method, const std::string& keyPattern) {
    ObserveReq request;
    request.set_key_pattern(keyPattern);
    m_reader.reset(grpc::internal::ClientAsyncReaderFactory<ObsTreeObserveChangeSet>::Create(
        &channel, &queue, method.method(), &m_context, request, true, this));
}

ObserveStream::News ObserveStream::take(bool isOk) {
    if (m_phase == Phase::Ending) {
        m_phase = Phase::Ended;
        return News::End;
    }
    if (!isOk) {
        m_phase = Phase::Ending;
        m_reader->Finish(&m_status, this);
        return News::None;
    }
    if (m_phase == Phase::Starting) {
        m_phase = Phase::Reading;
        m_reader->Read(&m_element, this);
        return News::None;
    }
    return News::Element;
}

void ObserveStream::readNext() {
    m_reader->Read(&m_element, this);
}

}  // namespace Hox::ObserverTree
