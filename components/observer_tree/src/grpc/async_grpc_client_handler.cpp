#include "hox/observer_tree/grpc/async_grpc_client_handler.h"

#include <fmt/format.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>
#include <spdlog/logger.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <variant>

#include "grpc/connection_watch.h"
#include "grpc/non_polling_queue.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::ObserverTree {

namespace {

using google::protobuf::Message;
using Reader = grpc::ClientAsyncReader<Message>;
using UnaryReader = grpc::ClientAsyncResponseReader<Message>;

constexpr std::chrono::milliseconds pollInterval{500};

// A lost connection ends its streams and changes the state of its channel, in no particular order.
constexpr std::uint64_t eventsUntilLeftAlone = 4;

}  // namespace

enum class AsyncGrpcClientHandler::ClientRequestState {
    STREAM_STARTING = 0,
    STREAMING = 1,
    FINISHED_STREAMING = 2,
    // Calls that are not streams; callMethodServerStreaming refuses them.
    UNARY_READ = 3,
    UNARY_FINISH = 4,
    FINISHED = 5,
};

struct AsyncGrpcClientHandler::CallData {
    ClientRequestState requestState = ClientRequestState::STREAM_STARTING;
    /// The handle has another copy: the use count shows whether the caller still holds the handle.
    std::shared_ptr<grpc::ClientContext> context;
    grpc::internal::RpcMethod rpcMethod;
    grpc::Status status;
    std::unique_ptr<Message> message;
    CallBackMethodType callback;
    std::shared_ptr<grpc::Channel> channel;
    /// Allocated in the arena of the call: destroyed before the context.
    std::variant<std::monostate, std::unique_ptr<Reader>, std::unique_ptr<UnaryReader>> reader;
    bool inProcess = false;
    /// Protects the callback from the end of the handle, whose deleter shares the mutex. Recursive:
    /// the callback may end its own handle.
    std::shared_ptr<std::recursive_mutex> callMutex;
    /// The watch on the channel, as long as the call may be told as lost; null in-process.
    std::shared_ptr<ConnectionWatch> watch;
    /// The losses of the channel's connection before the call was started.
    std::uint64_t lossesBefore = 0;
    /// The events of the watch before the call ended.
    std::uint64_t eventsBeforeEnd = 0;

    bool isHandleHeld() const {
        const std::lock_guard<std::recursive_mutex> lock(*callMutex);
        return context.use_count() > 1;
    }

    void callBackIfHeld(std::unique_ptr<Message> received, const grpc::Status& callStatus) const {
        const std::lock_guard<std::recursive_mutex> lock(*callMutex);
        if (isHandleHeld()) {
            callback(std::move(received), callStatus);
        }
    }

    // REQUIRES(m_mutex)
    bool isConnectionLost() const {
        // The channel of an in-process call has no state to query.
        return watch && (watch->losses() != lossesBefore || watch->isIdle());
    }

    /// Whether the handle has been dropped, which may be about to happen elsewhere.
    bool isCancelled() const { return context.use_count() == 1; }

    Reader& stream() { return *std::get<std::unique_ptr<Reader>>(reader); }
};

AsyncGrpcClientHandler::AsyncGrpcClientHandler(std::shared_ptr<std::mutex> capabilityMutex,
                                               bool inProcess)
    : m_logger(Hox::Log::getLogsystem()->getLogger("AsyncGrpcClientHandler")),
      m_completionQueue(inProcess ? makeNonPollingQueue()
                                  : std::make_unique<grpc::CompletionQueue>()),
      m_capabilityMutex(std::move(capabilityMutex)) {}

AsyncGrpcClientHandler::~AsyncGrpcClientHandler() {
    stop();
}

void AsyncGrpcClientHandler::stop() {
    {
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (std::exchange(m_isShuttingDown, true)) {
            return;
        }
        for (const auto& call : m_calls) {
            call.second->context->TryCancel();
        }
        m_completionQueue->Shutdown();
    }
    if (m_thread) {
        m_thread->join();
    }
    // gRPC requires an empty queue on destruction; every call has been cancelled.
    void* tag = nullptr;
    bool ok = false;
    while (m_completionQueue->Next(&tag, &ok)) {
    }
    freeCalls();
}

void AsyncGrpcClientHandler::freeCalls() {
    m_justEnded.clear();
    m_leftAlone.clear();
    decltype(m_calls) calls;
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_waiting.clear();
    calls.swap(m_calls);  // freed without the lock: captures of callbacks may end calls
}

void AsyncGrpcClientHandler::startThread() {
    HOX_ASSERT(!m_thread);
    {
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        HOX_ASSERT(!m_isShuttingDown);
    }
    m_thread = std::make_unique<std::thread>([this] { startProcessingCompletionQueue(); });
}

AsyncGrpcClientHandler::CallMethodRaiiHandleType AsyncGrpcClientHandler::callMethodServerStreaming(
    const Message& request, const google::protobuf::MethodDescriptor& methodDesc,
    std::shared_ptr<grpc::Channel> channel, bool inProcess, const CallBackMethodType& callback) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_isShuttingDown) {
        return {};
    }
    HOX_ASSERT_MSG(methodDesc.server_streaming(),
                   "The async API should no longer be used for unary calls. Use blocking gRPC "
                   "directly.");
    const auto& rpcMethod = rpcMethodFor(channel, methodDesc);
    const auto* prototype = google::protobuf::MessageFactory::generated_factory()->GetPrototype(
        methodDesc.output_type());
    std::unique_ptr<CallData> owned(new CallData{
        ClientRequestState::STREAM_STARTING, std::make_shared<grpc::ClientContext>(), rpcMethod,
        grpc::Status(), std::unique_ptr<Message>(prototype->New()), callback, std::move(channel),
        std::monostate(), inProcess, std::make_shared<std::recursive_mutex>(), nullptr, 0, 0});
    CallData& callData = *owned;
    m_logger->log(Hox::Log::here(), spdlog::level::debug,
                  "Calling Streaming Method, callData object {} created", fmt::ptr(&callData));
    auto handle = handleFor(callData);
    m_calls.emplace(&callData, std::move(owned));
    callData.reader =
        std::unique_ptr<Reader>(grpc::internal::ClientAsyncReaderFactory<Message>::Create(
            callData.channel.get(), m_completionQueue.get(), callData.rpcMethod,
            callData.context.get(), request, false, nullptr));
    if (inProcess) {
        callData.stream().StartCall(&callData);
    } else {
        callData.watch = watchFor(callData.channel);
        callData.watch->arm(true);
        startOrWait(callData);
    }
    return handle;
}

std::shared_ptr<ConnectionWatch> AsyncGrpcClientHandler::watchFor(
    const std::shared_ptr<grpc::Channel>& channel) {
    auto& watch = m_watches[channel.get()];
    if (!watch) {
        watch = std::make_shared<ConnectionWatch>(channel, *m_completionQueue);
    }
    return watch;
}

void AsyncGrpcClientHandler::startOrWait(CallData& call) {
    using Readiness = ConnectionWatch::Readiness;
    auto& watch = *call.watch;
    const auto readiness = watch.readiness();
    if (readiness == Readiness::NotYet && !call.isCancelled()) {
        m_waiting.push_back(&call);
        return;
    }
    // What is not watched counts as lost when it ends.
    call.lossesBefore = watch.losses() - (readiness == Readiness::Unwatched ? 1 : 0);
    call.stream().StartCall(&call);
}

void AsyncGrpcClientHandler::watchOn(ConnectionWatch& watch) {
    const auto ofThis = std::stable_partition(
        m_waiting.begin(), m_waiting.end(),
        [&watch](const CallData* call) { return call->watch.get() != &watch; });
    const std::vector<CallData*> waiting(ofThis, m_waiting.end());
    m_waiting.erase(ofThis, m_waiting.end());
    watch.arm(!waiting.empty());
    for (auto* call : waiting) {
        startOrWait(*call);
    }
}

bool AsyncGrpcClientHandler::takeAsWatchEvent(const void* tag, bool isChanged) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto found = std::find_if(m_watches.begin(), m_watches.end(), [&](const auto& watch) {
        return watch.second->take(tag, isChanged);
    });
    if (found == m_watches.end()) {
        return false;
    }
    // The map itself holds the watch once; without another owner no call needs it.
    if (!m_isShuttingDown && found->second.use_count() > 1) {
        watchOn(*found->second);
    } else if (!found->second->isPending()) {
        m_watches.erase(found);
    }
    return true;
}

const grpc::internal::RpcMethod& AsyncGrpcClientHandler::rpcMethodFor(
    const std::shared_ptr<grpc::Channel>& channel,
    const google::protobuf::MethodDescriptor& method) {
    auto& registered = m_rpcMethods[{channel, OwnedRpcMethod::pathOf(method)}];
    if (!registered) {
        registered =
            std::make_unique<OwnedRpcMethod>(method, OwnedRpcMethod::Answer::AsStream, channel);
    }
    return registered->method();
}

AsyncGrpcClientHandler::CallMethodRaiiHandleType AsyncGrpcClientHandler::handleFor(
    const CallData& callData) const {
    return {std::make_unique<std::shared_ptr<grpc::ClientContext>>(callData.context).release(),
            [logger = m_logger,
             callMutex = callData.callMutex](std::shared_ptr<grpc::ClientContext>* context) {
                logger->log(Hox::Log::here(), spdlog::level::debug,
                            "Finishing streaming call, RAII style");
                const std::lock_guard<std::recursive_mutex> lock(*callMutex);
                const std::unique_ptr<std::shared_ptr<grpc::ClientContext>> owned(context);
                (*owned)->TryCancel();
            }};
}

void AsyncGrpcClientHandler::startProcessingCompletionQueue() {
    m_logger->log(Hox::Log::here(), spdlog::level::debug,
                  "{}:{} AsyncGrpcClientHandler Thread Started", ::getpid(), ::gettid());
    void* tag = nullptr;
    bool ok = false;
    for (;;) {
        const auto outcome = m_completionQueue->AsyncNext(
            &tag, &ok, std::chrono::system_clock::now() + pollInterval);
        if (outcome == grpc::CompletionQueue::GOT_EVENT && takeAsWatchEvent(tag, ok)) {
            afterWatchEvent(ok);
            continue;
        }
        const std::lock_guard<std::mutex> capabilityLock(*m_capabilityMutex);
        if (outcome == grpc::CompletionQueue::SHUTDOWN) {
            break;
        }
        removeDroppedCalls();
        if (outcome == grpc::CompletionQueue::GOT_EVENT) {
            auto& callData = callOf(tag);
            m_logger->log(Hox::Log::here(), spdlog::level::trace,
                          "{} Received Call Data on Client Queue isOk = {:d} StatusCode {} "
                          "requestState = {}",
                          fmt::ptr(&callData), ok, static_cast<int>(callData.status.error_code()),
                          static_cast<int>(callData.requestState));
            ok ? processOkEvent(callData) : processNotOkEvent(callData);
        } else if (isShuttingDown()) {
            break;
        }
    }
    m_logger->log(Hox::Log::here(), spdlog::level::debug,
                  "AsyncGrpcClientHandler Thread Exited isOk {:d} isShuttingdown {:d}", ok,
                  isShuttingDown());
}

bool AsyncGrpcClientHandler::isShuttingDown() {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_isShuttingDown;
}

AsyncGrpcClientHandler::CallData& AsyncGrpcClientHandler::callOf(void* tag) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return *m_calls.at(static_cast<const CallData*>(tag));
}

std::unique_ptr<AsyncGrpcClientHandler::CallData> AsyncGrpcClientHandler::takeOut(
    const CallData& callData) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return std::move(m_calls.extract(&callData).mapped());
}

void AsyncGrpcClientHandler::processOkEvent(CallData& callData) {
    switch (callData.requestState) {
        case ClientRequestState::STREAM_STARTING:
            if (!callData.status.ok()) {
                callData.callBackIfHeld(nullptr, callData.status);
                return;
            }
            m_logger->log(Hox::Log::here(), spdlog::level::trace,
                          "{} Waiting for server streaming, data has value {:d}",
                          fmt::ptr(&callData), callData.message != nullptr);
            callData.requestState = ClientRequestState::STREAMING;
            readNext(callData);
            return;
        case ClientRequestState::STREAMING: {
            m_logger->log(Hox::Log::here(), spdlog::level::trace,
                          "{} Server Data Ready for streaming", fmt::ptr(&callData));
            auto received = std::move(callData.message);
            callData.message.reset(received->New());
            callData.callBackIfHeld(std::move(received), callData.status);
            readNext(callData);
            return;
        }
        case ClientRequestState::FINISHED_STREAMING:
            m_logger->log(Hox::Log::here(), spdlog::level::trace,
                          "Finished streaming call, deleting callData object {}",
                          fmt::ptr(&callData));
            takeOut(callData);
            return;
        default:
            processOkUnaryEvent(callData);
    }
}

void AsyncGrpcClientHandler::processOkUnaryEvent(CallData& callData) {
    if (callData.requestState == ClientRequestState::UNARY_READ) {
        m_logger->log(Hox::Log::here(), spdlog::level::trace,
                      "Received unary read call {}, calling Unary Finish StatusCode {}",
                      fmt::ptr(&callData), static_cast<int>(callData.status.error_code()));
        callData.requestState = ClientRequestState::UNARY_FINISH;
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (!m_isShuttingDown) {
            std::get<std::unique_ptr<UnaryReader>>(callData.reader)
                ->Finish(callData.message.get(), &callData.status, &callData);
        }
    } else if (callData.requestState == ClientRequestState::UNARY_FINISH) {
        m_logger->log(Hox::Log::here(), spdlog::level::trace,
                      "Recieved Unary Finish Call, set finished state {}", fmt::ptr(&callData));
        callData.requestState = ClientRequestState::FINISHED;
        callData.callBackIfHeld(std::move(callData.message), callData.status);
        if (!callData.status.ok()) {
            takeOut(callData);
        }
    } else {
        m_logger->log(Hox::Log::here(), spdlog::level::trace, "Received Finished call {}",
                      fmt::ptr(&callData));
        takeOut(callData);
    }
}

void AsyncGrpcClientHandler::processNotOkEvent(const CallData& callData) {
    auto call = takeOut(callData);
    call->eventsBeforeEnd = eventsOfWatch(*call);
    leaveAloneOrTellLoss(std::move(call));
}

bool AsyncGrpcClientHandler::isConnectionLost(const CallData& call) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return !m_isShuttingDown && call.isConnectionLost();  // stop() itself has cancelled the call
}

std::uint64_t AsyncGrpcClientHandler::eventsOfWatch(const CallData& call) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return call.watch ? call.watch->events() : 0;
}

void AsyncGrpcClientHandler::leaveAloneOrTellLoss(std::unique_ptr<CallData> call) {
    if (!call->status.ok() || !call->isHandleHeld() || isConnectionLost(*call)) {
        m_logger->log(Hox::Log::here(), spdlog::level::debug,
                      "CompletionQueue returned not ok! StatusCode {} ",
                      static_cast<int>(call->status.error_code()));
        call->callBackIfHeld(nullptr,
                             grpc::Status(grpc::StatusCode::CANCELLED, "Some error occured!"));
    } else if (!call->watch) {
        m_leftAlone.push_back(std::move(call));
    } else if (eventsOfWatch(*call) < call->eventsBeforeEnd + eventsUntilLeftAlone) {
        m_justEnded.push_back(std::move(call));
    } else {
        m_logger->log(Hox::Log::here(), spdlog::level::warn,
                      "{} of {} has ended, but its connection remains: nothing more arrives",
                      call->rpcMethod.name(), call->context->peer());
        unwatch(*call);
        m_leftAlone.push_back(std::move(call));
    }
}

void AsyncGrpcClientHandler::unwatch(CallData& call) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    call.watch.reset();
}

/// Waits for the capability's mutex only if there may be a loss to tell: who holds it may be making
/// calls on the same channel, and whatever happens to that must not be missed.
void AsyncGrpcClientHandler::afterWatchEvent(bool isChanged) {
    std::unique_lock<std::mutex> capabilityLock(*m_capabilityMutex, std::defer_lock);
    if (isChanged && !m_justEnded.empty()) {
        capabilityLock.lock();
    } else if (!capabilityLock.try_lock()) {
        return;
    }
    for (auto& call : std::exchange(m_justEnded, {})) {
        if (call->isHandleHeld()) {
            leaveAloneOrTellLoss(std::move(call));
        }
    }
    removeDroppedCalls();
}

void AsyncGrpcClientHandler::removeDroppedCalls() {
    m_leftAlone.erase(std::remove_if(m_leftAlone.begin(), m_leftAlone.end(),
                                     [](const auto& call) { return !call->isHandleHeld(); }),
                      m_leftAlone.end());
}

void AsyncGrpcClientHandler::readNext(CallData& callData) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_isShuttingDown) {
        callData.stream().Read(callData.message.get(), &callData);
    }
}

}  // namespace Hox::ObserverTree
