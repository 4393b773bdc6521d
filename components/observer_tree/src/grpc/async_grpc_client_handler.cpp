#include "hox/observer_tree/grpc/async_grpc_client_handler.h"

#include <fmt/format.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <variant>

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

// A lost connection ends its streams and makes its channel idle, in no particular order.
constexpr std::chrono::milliseconds lossInterval{10};
constexpr std::chrono::seconds lossPeriod{1};

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
    /// The channel of the ended call is checked again until this time.
    std::chrono::steady_clock::time_point lossDeadline{};

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

    bool mayBeLeftAlone() const {
        // The channel of an in-process call has no state to query.
        return status.ok() && isHandleHeld() &&
               (inProcess || channel->GetState(false) != GRPC_CHANNEL_IDLE);
    }

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
        std::monostate(), inProcess, std::make_shared<std::recursive_mutex>()});
    CallData& callData = *owned;
    m_logger->log(Hox::Log::here(), spdlog::level::debug,
                  "Calling Streaming Method, callData object {} created", fmt::ptr(&callData));
    auto handle = handleFor(callData);
    m_calls.emplace(&callData, std::move(owned));
    callData.reader =
        std::unique_ptr<Reader>(grpc::internal::ClientAsyncReaderFactory<Message>::Create(
            callData.channel.get(), m_completionQueue.get(), callData.rpcMethod,
            callData.context.get(), request, false, nullptr));
    callData.stream().StartCall(&callData);
    return handle;
}

const grpc::internal::RpcMethod& AsyncGrpcClientHandler::rpcMethodFor(
    const std::shared_ptr<grpc::Channel>& channel,
    const google::protobuf::MethodDescriptor& method) {
    auto& registered = m_rpcMethods[{channel, OwnedRpcMethod::pathOf(method)}];
    if (!registered) {
        registered = std::make_unique<OwnedRpcMethod>(
            method, grpc::internal::RpcMethod::SERVER_STREAMING, channel);
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
        const auto wait = m_justEnded.empty() ? pollInterval : lossInterval;
        const auto outcome =
            m_completionQueue->AsyncNext(&tag, &ok, std::chrono::system_clock::now() + wait);
        const std::lock_guard<std::mutex> capabilityLock(*m_capabilityMutex);
        if (outcome == grpc::CompletionQueue::SHUTDOWN) {
            break;
        }
        lookAfterEndedCalls();
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
    call->lossDeadline = std::chrono::steady_clock::now() + lossPeriod;
    leaveAloneOrTellLoss(std::move(call));
}

void AsyncGrpcClientHandler::leaveAloneOrTellLoss(std::unique_ptr<CallData> call) {
    if (call->mayBeLeftAlone()) {
        const bool mayStillBeLost =
            !call->inProcess && std::chrono::steady_clock::now() < call->lossDeadline;
        if (!mayStillBeLost && !call->inProcess) {
            m_logger->log(Hox::Log::here(), spdlog::level::warn,
                          "{} of {} has ended, but its connection remains: nothing more arrives",
                          call->rpcMethod.name(), call->context->peer());
        }
        (mayStillBeLost ? m_justEnded : m_leftAlone).push_back(std::move(call));
        return;
    }
    m_logger->log(Hox::Log::here(), spdlog::level::debug,
                  "CompletionQueue returned not ok! StatusCode {} ",
                  static_cast<int>(call->status.error_code()));
    call->callBackIfHeld(nullptr, grpc::Status(grpc::StatusCode::CANCELLED, "Some error occured!"));
}

void AsyncGrpcClientHandler::lookAfterEndedCalls() {
    for (auto& call : std::exchange(m_justEnded, {})) {
        if (call->isHandleHeld()) {
            leaveAloneOrTellLoss(std::move(call));
        }
    }
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
