#include "hox/observer_tree/grpc/async_grpc_server_handler.h"

#include <spdlog/logger.h>

#include <utility>

#include "grpc/async_grpc_server_call_data.h"
#include "grpc/wire_message_memo.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::ObserverTree {

using NextStatus = grpc::CompletionQueue::NextStatus;

AsyncGrpcServerHandler::AsyncGrpcServerHandler(
    std::unique_ptr<grpc::ServerCompletionQueue> completionQueue,
    std::shared_ptr<std::mutex> capabilityMutex, std::shared_ptr<StandbyPoller> standbyPoller,
    std::size_t maxMessageSize)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_completionQueue(std::move(completionQueue)),
      m_capabilityMutex(std::move(capabilityMutex)),
      m_standbyPoller(std::move(standbyPoller)),
      m_maxMessageSize(maxMessageSize),
      m_wireMessageMemo(std::make_unique<WireMessageMemo>()) {}

AsyncGrpcServerHandler::~AsyncGrpcServerHandler() {
    {
        const std::lock_guard<std::recursive_mutex> lock(m_stateMutex);
        markShuttingDown();
        m_completionQueue->Shutdown();
    }
    if (m_completionQueueThread) {
        m_completionQueueThread->join();
        m_completionQueueThread.reset();
    } else {
        drainQueue();
    }
    freeAllTags();
}

void AsyncGrpcServerHandler::addMethod(const google::protobuf::MethodDescriptor& method,
                                       std::shared_ptr<IRequestWrapperService> wrapper,
                                       ObserverTree* tree) {
    m_methods.push_back(std::make_shared<const AsyncMethodDesc>(method, std::move(wrapper), tree));
}

void AsyncGrpcServerHandler::addService(std::shared_ptr<IRequestWrapperService> service) {
    m_services.push_back(std::move(service));
}

void AsyncGrpcServerHandler::startCompletionQueueThread() {
    HOX_ASSERT(!m_completionQueueThread);
    std::promise<void> requested;
    auto firstCallsRequested = requested.get_future();
    m_completionQueueThread =
        std::make_unique<std::thread>([this, requested = std::move(requested)]() mutable {
            startProcessingCompletionQueue(std::move(requested));
        });
    firstCallsRequested.wait();
}

void AsyncGrpcServerHandler::startProcessingCompletionQueue(std::promise<void> requested) {
    m_logger->log(Hox::Log::here(), spdlog::level::debug, "Async gRPC server thread started!");
    requestFirstCalls();
    requested.set_value();
    if (processEvents() == NextStatus::TIMEOUT) {
        // The queue was shut down after the last look at it: events that came in between are still
        // in it.
        processEvents();
    }
    m_logger->log(Hox::Log::here(), spdlog::level::debug, "AsyncGrpcServerHandler Thread Exited ");
    const std::lock_guard<std::mutex> capabilityLock(*m_capabilityMutex);
    freeAllTags();
}

NextStatus AsyncGrpcServerHandler::processEvents() {
    void* tag = nullptr;
    bool ok = false;
    auto outcome = NextStatus::TIMEOUT;
    do {
        outcome = nextEvent(&tag, &ok);
    } while (processEvent(outcome, tag, ok));
    return outcome;
}

NextStatus AsyncGrpcServerHandler::nextEvent(void** tag, bool* ok) {
    const StandbyPoller::Wait wait(m_standbyPoller.get());
    return m_completionQueue->AsyncNext(tag, ok, std::chrono::system_clock::now() + pollInterval);
}

void AsyncGrpcServerHandler::requestFirstCalls() {
    for (const auto& method : m_methods) {
        createCallData(method);
    }
}

void AsyncGrpcServerHandler::createCallData(
    const std::shared_ptr<const AsyncMethodDesc>& asyncMethodDesc) {
    const std::lock_guard<std::recursive_mutex> lock(m_stateMutex);
    if (m_isShuttingDown || m_isServerShuttingDown) {
        return;
    }
    HOX_ASSERT(asyncMethodDesc->reqWrapperService.get());
    auto* tag = new CallDataTag(std::make_shared<CallData>(asyncMethodDesc));
    if (asyncMethodDesc->isServerStreaming) {
        requestStreamingCall(tag);
    } else {
        requestUnaryCall(tag);
    }
}

void AsyncGrpcServerHandler::requestUnaryCall(CallDataTag* tag) {
    CallData& callData = **tag;
    callData.responder =
        std::make_unique<grpc::ServerAsyncResponseWriter<google::protobuf::Message>>(
            callData.context.get());
    const auto& method = *callData.asyncMethodDesc;
    method.reqWrapperService->requestUnary(method.index, callData.context.get(),
                                           callData.request.get(), callData.responder.get(),
                                           m_completionQueue.get(), m_completionQueue.get(), tag);
}

void AsyncGrpcServerHandler::requestStreamingCall(CallDataTag* tag) {
    CallData& callData = **tag;
    auto* cleanupTag = new CallDataTag(std::make_shared<CallData>(tag));
    m_callDataTags.insert(cleanupTag);
    callData.peer = *cleanupTag;
    callData.context->AsyncNotifyWhenDone(cleanupTag);
    callData.stream = std::make_unique<ObserveStream>(callData.context.get());
    const auto& method = *callData.asyncMethodDesc;
    method.reqWrapperService->requestServerStreaming(
        method.index, callData.context.get(), callData.request.get(), &callData.stream->writer,
        m_completionQueue.get(), m_completionQueue.get(), tag);
}

void AsyncGrpcServerHandler::markShuttingDown() {
    const std::lock_guard<std::mutex> writeLock(m_writeMutex);
    m_isShuttingDown = true;
}

void AsyncGrpcServerHandler::freeTag(CallDataTag* tag) {
    m_callDataTags.erase(tag);
    delete tag;
}

void AsyncGrpcServerHandler::freeAllTags() {
    const std::lock_guard<std::recursive_mutex> lock(m_stateMutex);
    while (!m_callDataTags.empty()) {
        freeTag(*m_callDataTags.begin());
    }
}

void AsyncGrpcServerHandler::drainQueue() {
    void* tag = nullptr;
    bool ok = false;
    while (
        m_completionQueue->AsyncNext(&tag, &ok, std::chrono::system_clock::now() + pollInterval) ==
        NextStatus::GOT_EVENT) {
        freeTag(static_cast<CallDataTag*>(tag));
    }
}

}  // namespace Hox::ObserverTree
