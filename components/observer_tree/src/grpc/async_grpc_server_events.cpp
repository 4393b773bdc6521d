// Handles the events of the queue.
#include <spdlog/logger.h>

#include <utility>

#include "grpc/async_grpc_server_call_data.h"
#include "grpc/client_text.h"
#include "grpc/unmatchable_pattern.h"
#include "grpc/wire_message_memo.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/grpc/async_grpc_server_handler.h"

namespace Hox::ObserverTree {

using NextStatus = grpc::CompletionQueue::NextStatus;

namespace {

std::string tooLargeText(const char* what, std::size_t size) {
    return fmt::format("The {} is too large to be sent: {} bytes", what, size);
}

}  // namespace

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
            // From here on the server would return each request immediately.
            m_isServerShuttingDown = true;
            break;
        case CallDataState::FINISHED_STREAMING_CLEANUP:
            endStream(callData);
            break;
        case CallDataState::FINISHED:
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
    // Now, not after the answer has been sent: a client that does not read its answer must not
    // block the others.
    createCallData((*tag)->asyncMethodDesc);
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
        if (status.isOk()) {
            answer(callData, message ? *message : *callData->asyncMethodDesc->responsePrototype);
        } else {
            callData->responder->FinishWithError(
                grpc::Status(static_cast<grpc::StatusCode>(status.statusCode()),
                             clientText(status.errorMessage())),
                &callData);
        }
    } catch (const std::exception& e) {
        m_logger->log(Hox::Log::here(), spdlog::level::err,
                      "Finished unary call for operation {} with exception\n{}", toString(OpId),
                      e.what());
        callData->responder->FinishWithError(
            grpc::Status(grpc::StatusCode::FAILED_PRECONDITION, clientText(e.what())), &callData);
    }
}

void AsyncGrpcServerHandler::answer(CallDataTag& callData,
                                    const google::protobuf::Message& response) {
    const auto size = response.ByteSizeLong();
    if (size <= m_maxMessageSize) {
        callData->responder->Finish(response, grpc::Status::OK, &callData);
        return;
    }
    const auto text = tooLargeText("answer", size);
    m_logger->log(Hox::Log::here(), spdlog::level::err, "{}: {}",
                  callData->asyncMethodDesc->fullName, text);
    callData->responder->FinishWithError(grpc::Status(grpc::StatusCode::RESOURCE_EXHAUSTED, text),
                                         &callData);
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
            tag, m_wireMessageMemo->element({}, Status(ProtoStatus::INVALID_ARGUMENT, *reason)));
        return;
    }
    callData.stream->observeHandle = callData.tree->observeCast(
        callData.options.key(), *callData.request,
        [this, tag](const ChangeSetType& changes, const Status& status) {
            writeChangeSet(tag, m_wireMessageMemo->element(changes, status));
        },
        0);
}

void AsyncGrpcServerHandler::writeChangeSet(CallDataTag* tag, StreamElement element) {
    const std::lock_guard<std::mutex> writeLock(m_writeMutex);
    auto& stream = *(*tag)->stream;
    if (m_isShuttingDown || stream.isFinishing) {
        return;
    }
    if (element.size > m_maxMessageSize) {
        finishStream(tag, element.size);
        return;
    }
    const auto pendingWrites = stream.pendingWrites.load();
    if (pendingWrites == 0) {
        ++stream.pendingWrites;
        stream.writer.Write(*element.message, tag);
        return;
    }
    if (pendingWrites > 10) {
        m_logger->log(Hox::Log::here(), spdlog::level::err,
                      "Scheduled delayed observe writes above threshhold");
    }
    m_logger->log(Hox::Log::here(), spdlog::level::trace, "Scheduling delayed observe write");
    ++stream.pendingWrites;
    stream.delayedWrites.emplace_back([&stream, tag, message = std::move(element.message)] {
        stream.writer.Write(*message, tag);
    });
}

void AsyncGrpcServerHandler::finishStream(CallDataTag* tag, std::size_t size) {
    const auto text = tooLargeText("change set", size);
    m_logger->log(Hox::Log::here(), spdlog::level::err, "{}: {}", (*tag)->asyncMethodDesc->fullName,
                  text);
    auto& stream = *(*tag)->stream;
    stream.isFinishing = true;
    const auto finish = [&stream, tag, text] {
        stream.writer.Finish(grpc::Status(grpc::StatusCode::RESOURCE_EXHAUSTED, text), tag);
    };
    if (stream.pendingWrites++ == 0) {
        finish();
    } else {
        stream.delayedWrites.emplace_back(finish);
    }
}

void AsyncGrpcServerHandler::processFinishedWrite(CallDataTag* tag) {
    auto& stream = *(*tag)->stream;
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "{} Received STREAMING_TO_CLIENT Call Data", fmt::ptr(tag));
    if (stream.isDone) {
        freeTag(tag);
        return;
    }
    --stream.pendingWrites;
    const std::lock_guard<std::mutex> writeLock(m_writeMutex);
    if (!stream.delayedWrites.empty()) {
        stream.delayedWrites.front()();
        stream.delayedWrites.pop_front();
    }
}

void AsyncGrpcServerHandler::processEndOfStream(CallDataTag* tag) {
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "Received FINISHED_STREAMING_CLEANUP call data resetting RAII handle");
    endStream(**tag);
    freeTag(tag);
}

/// The content of the call is released immediately, or after the write in flight. The shell of its
/// tag stays: the observation knows the call by its address.
void AsyncGrpcServerHandler::endStream(const CallData& cleanup) {
    const auto streamingCall = cleanup.peer.lock();
    if (!streamingCall) {
        return;
    }
    auto& stream = *streamingCall->stream;
    stream.observeHandle.reset();
    stream.isDone = true;
    const std::lock_guard<std::mutex> writeLock(m_writeMutex);
    stream.isFinishing = true;
    stream.delayedWrites.clear();
    if (stream.pendingWrites == 0) {
        cleanup.peerTag->reset();
    }
}

}  // namespace Hox::ObserverTree
