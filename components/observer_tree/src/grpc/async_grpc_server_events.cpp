// What the handler does at each event of its queue.
#include <utility>

#include "grpc/async_grpc_server_call_data.h"
#include "grpc/unmatchable_pattern.h"
#include "grpc/wire_message_memo.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/grpc/async_grpc_server_handler.h"

namespace Hox::ObserverTree {

using NextStatus = grpc::CompletionQueue::NextStatus;

bool AsyncGrpcServerHandler::processEvent(NextStatus outcome, void* tag, bool ok) {
    const std::lock_guard<std::mutex> capabilityLock(*m_capabilityMutex);
    const std::lock_guard<std::recursive_mutex> stateLock(m_stateMutex);
    switch (outcome) {
        case NextStatus::TIMEOUT:
            m_wireMessageMemo->clear();
            return !m_isShuttingDown;
        case NextStatus::SHUTDOWN:
            m_logger->log(Hox::Log::here(), spdlog::level::debug, "Shutdown");
            markShuttingDown();
            return false;
        case NextStatus::GOT_EVENT:
            break;
    }
    auto* const callDataTag = static_cast<CallDataTag*>(tag);
    if (ok) {
        processOkEvent(callDataTag);
    } else {
        processNotOkEvent(callDataTag);
    }
    return true;
}

void AsyncGrpcServerHandler::processNotOkEvent(CallDataTag* tag) {
    m_logger->log(Hox::Log::here(), spdlog::level::debug, "{} Received Not Ok!", fmt::ptr(tag));
    const CallData& callData = **tag;
    switch (callData.state) {
        case CallDataState::WAITING_FOR_REQUEST:
            // From here on the server would hand back each request at once.
            m_isServerShuttingDown = true;
            break;
        case CallDataState::FINISHED:
            createCallData(callData.asyncMethodDesc);
            break;
        case CallDataState::FINISHED_STREAMING_CLEANUP:
            endObservation(callData);
            break;
        case CallDataState::STREAMING_TO_CLIENT:
            break;
    }
    freeTag(tag);
}

void AsyncGrpcServerHandler::processOkEvent(CallDataTag* tag) {
    const CallData& callData = **tag;
    if (m_isShuttingDown) {
        freeTag(tag);
        return;
    }
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "{} {} Received Call Data on Server Queue", static_cast<int>(callData.state),
                  fmt::ptr(tag));
    switch (callData.state) {
        case CallDataState::WAITING_FOR_REQUEST:
            processRequest(tag);
            break;
        case CallDataState::STREAMING_TO_CLIENT:
            processFinishedWrite(tag);
            break;
        case CallDataState::FINISHED:
            m_logger->log(Hox::Log::here(), spdlog::level::trace, "{} Received Finished Call Data",
                          fmt::ptr(tag));
            createCallData(callData.asyncMethodDesc);
            freeTag(tag);
            break;
        case CallDataState::FINISHED_STREAMING_CLEANUP:
            processEndOfStream(tag);
            break;
    }
}

void AsyncGrpcServerHandler::processRequest(CallDataTag* tag) {
    switch ((*tag)->options.type()) {
        case ObsTreeOptions::CREATE:
            processUnaryRequest<UnaryOps::CREATE>(tag);
            break;
        case ObsTreeOptions::READ:
            processUnaryRequest<UnaryOps::READ>(tag);
            break;
        case ObsTreeOptions::UPDATE:
            processUnaryRequest<UnaryOps::UPDATE>(tag);
            break;
        case ObsTreeOptions::REMOVE:
            processUnaryRequest<UnaryOps::REMOVE>(tag);
            break;
        case ObsTreeOptions::OBSERVE:
            processObserveRequest(tag);
            break;
        default:
            HOX_ASSERT(false);
            (*tag)->context->TryCancel();
            freeTag(tag);
            break;
    }
}

template <UnaryOps OpId>
void AsyncGrpcServerHandler::processUnaryRequest(CallDataTag* tag) {
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "{} Received {} Call Data, full method name {}", fmt::ptr(tag), toString(OpId),
                  (*tag)->asyncMethodDesc->fullName);
    tryCallUnaryOpCast<OpId>(*tag);
    m_logger->log(Hox::Log::here(), spdlog::level::trace, "{} End {} Call Data", fmt::ptr(tag),
                  toString(OpId));
}

template <UnaryOps OpId>
void AsyncGrpcServerHandler::tryCallUnaryOpCast(CallDataTag& callData) {
    HOX_ASSERT(callData->responder.get());
    callData->state = CallDataState::FINISHED;
    try {
        const auto [message, status] = callData->tree->unaryOpCast<OpId>(
            callData->options.key(), std::move(*callData->request));
        m_logger->log(Hox::Log::here(), spdlog::level::trace,
                      "Finished unary call for operation {}", toString(OpId));
        const grpc::Status grpcStatus(static_cast<grpc::StatusCode>(status.statusCode()),
                                      status.errorMessage());
        if (grpcStatus.ok()) {
            const auto& response =
                message ? *message : *callData->asyncMethodDesc->responsePrototype;
            callData->responder->Finish(response, grpcStatus, &callData);
        } else {
            callData->responder->FinishWithError(grpcStatus, &callData);
        }
    } catch (const std::exception& e) {
        m_logger->log(Hox::Log::here(), spdlog::level::err,
                      "Finished unary call for operation {} with exception\n{}", toString(OpId),
                      e.what());
        callData->responder->FinishWithError(
            grpc::Status(grpc::StatusCode::FAILED_PRECONDITION, e.what()), &callData);
    }
}

void AsyncGrpcServerHandler::processObserveRequest(CallDataTag* tag) {
    CallData& callData = **tag;
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "{} Received OBSERVE Call Data, key {}, full method name {}", fmt::ptr(tag),
                  callData.options.key(), callData.asyncMethodDesc->fullName);
    HOX_ASSERT(callData.stream.get());
    createCallData(callData.asyncMethodDesc);
    callData.state = CallDataState::STREAMING_TO_CLIENT;
    m_callDataTags.insert(tag);
    if (const auto reason = findUnmatchablePattern(*callData.request)) {
        writeChangeSet(
            tag, m_wireMessageMemo->message({}, Status(ProtoStatus::INVALID_ARGUMENT, *reason)));
        return;
    }
    callData.stream->observeHandle = callData.tree->observeCast(
        callData.options.key(), *callData.request,
        [this, tag](const ChangeSetType& changes, const Status& status) {
            writeChangeSet(tag, m_wireMessageMemo->message(changes, status));
        },
        0);
}

void AsyncGrpcServerHandler::writeChangeSet(
    CallDataTag* tag, std::shared_ptr<const ObsTreeObserveChangeSet> message) {
    const std::lock_guard<std::mutex> writeLock(m_writeMutex);
    if (m_isShuttingDown) {
        return;
    }
    auto& stream = *(*tag)->stream;
    const auto pendingWrites = stream.pendingWrites.load();
    if (pendingWrites == 0) {
        ++stream.pendingWrites;
        stream.writer.Write(*message, tag);
        return;
    }
    if (pendingWrites > 10) {
        m_logger->log(Hox::Log::here(), spdlog::level::err,
                      "Scheduled delayed observe writes above threshhold");
    }
    m_logger->log(Hox::Log::here(), spdlog::level::trace, "Scheduling delayed observe write");
    ++stream.pendingWrites;
    stream.delayedWrites.emplace_back(
        [&stream, tag, message = std::move(message)] { stream.writer.Write(*message, tag); });
}

void AsyncGrpcServerHandler::processFinishedWrite(CallDataTag* tag) {
    auto& stream = *(*tag)->stream;
    --stream.pendingWrites;
    const std::lock_guard<std::mutex> writeLock(m_writeMutex);
    if (!stream.delayedWrites.empty()) {
        stream.delayedWrites.front()();
        stream.delayedWrites.pop_front();
    }
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "{} Received STREAMING_TO_CLIENT Call Data", fmt::ptr(tag));
}

void AsyncGrpcServerHandler::processEndOfStream(CallDataTag* tag) {
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "Received FINISHED_STREAMING_CLEANUP call data resetting RAII handle");
    endObservation(**tag);
    freeTag(tag);
}

void AsyncGrpcServerHandler::endObservation(const CallData& cleanup) {
    if (const auto streamingCall = cleanup.peer.lock()) {
        streamingCall->stream->observeHandle.reset();
    }
}

}  // namespace Hox::ObserverTree
