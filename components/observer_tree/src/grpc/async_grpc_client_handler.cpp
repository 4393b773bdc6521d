#include "hox/observer_tree/grpc/async_grpc_client_handler.h"

#include <fmt/format.h>
#include <grpc/grpc.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <variant>

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

/// Calls inside the process need no poller, and one more of them slows down all others.
std::unique_ptr<grpc::CompletionQueue> makeQueue(bool inProcess) {
    if (!inProcess) {
        return std::make_unique<grpc::CompletionQueue>();
    }
    const grpc_completion_queue_attributes attributes{GRPC_CQ_CURRENT_VERSION, GRPC_CQ_NEXT,
                                                      GRPC_CQ_NON_POLLING, nullptr};
    return std::make_unique<grpc::CompletionQueue>(grpc_completion_queue_create(
        grpc_completion_queue_factory_lookup(&attributes), &attributes, nullptr));
}

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
    /// A further copy lives in the handle: the use count tells whether the caller holds it.
    std::shared_ptr<grpc::ClientContext> context;
    grpc::internal::RpcMethod rpcMethod;
    grpc::Status status;
    std::unique_ptr<Message> message;
    CallBackMethodType callback;
    std::shared_ptr<grpc::Channel> channel;
    /// In the arena of the call: goes before the context.
    std::variant<std::monostate, std::unique_ptr<Reader>, std::unique_ptr<UnaryReader>> reader;
    bool inProcess = false;
    /// Guards the callback against the end of the handle, whose deleter shares it.
    std::shared_ptr<std::mutex> callMutex;
    bool hasEnded = false;  // GUARDED_BY(*callMutex): no event will come any more

    bool isHandleHeld() const { return context.use_count() > 1; }
    Reader& stream() { return *std::get<std::unique_ptr<Reader>>(reader); }
};

AsyncGrpcClientHandler::AsyncGrpcClientHandler(std::shared_ptr<std::mutex> capabilityMutex,
                                               bool inProcess)
    : m_logger(Hox::Log::getLogsystem()->getLogger("AsyncGrpcClientHandler")),
      m_completionQueue(makeQueue(inProcess)),
      m_capabilityMutex(std::move(capabilityMutex)) {}

AsyncGrpcClientHandler::~AsyncGrpcClientHandler() {
    {
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        m_isShuttingDown = true;
        for (const auto& call : m_calls) {
            call.second->context->TryCancel();
        }
        m_completionQueue->Shutdown();
    }
    if (m_thread) {
        m_thread->join();
    }
    // gRPC wants a queue to be empty before it goes; every call has been cancelled.
    void* tag = nullptr;
    bool ok = false;
    while (m_completionQueue->Next(&tag, &ok)) {
    }
}

void AsyncGrpcClientHandler::startThread() {
    HOX_ASSERT(!m_thread);
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
        std::monostate(), inProcess, std::make_shared<std::mutex>()});
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
    const std::string path = "/" + method.service()->full_name() + "/" + method.name();
    auto& registered = m_rpcMethods[{channel, path}];
    if (!registered) {
        registered = std::make_unique<OwnedRpcMethod>(
            path, grpc::internal::RpcMethod::SERVER_STREAMING, channel);
    }
    return registered->method();
}

AsyncGrpcClientHandler::CallMethodRaiiHandleType AsyncGrpcClientHandler::handleFor(
    const CallData& callData) {
    return {std::make_unique<std::shared_ptr<grpc::ClientContext>>(callData.context).release(),
            [weakHandler = weak_from_this(), callMutex = callData.callMutex,
             call = &callData](std::shared_ptr<grpc::ClientContext>* context) {
                const std::unique_ptr<std::shared_ptr<grpc::ClientContext>> owned(context);
                if (const auto handler = weakHandler.lock()) {
                    handler->drop(call, *callMutex, context);
                }
            }};
}

void AsyncGrpcClientHandler::drop(const CallData* callData, std::mutex& callMutex,
                                  std::shared_ptr<grpc::ClientContext>* context) {
    m_logger->log(Hox::Log::here(), spdlog::level::debug, "Finishing streaming call, RAII style");
    // Inside the callback of this very call the mutex is held by this thread already.
    const bool isInsideCallback =
        std::this_thread::get_id() == m_threadId.load() && m_heldCallMutex == &callMutex;
    {
        std::unique_lock<std::mutex> lock(callMutex, std::defer_lock);
        if (!isInsideCallback) {
            lock.lock();
        }
        (*context)->TryCancel();
        context->reset();
    }
    // From here on the loop does not set hasEnded any more, as the handle is not held.
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto found = m_calls.find(callData);
    if (found != m_calls.end() && found->second->hasEnded) {
        // The next call may lie at the same address.
        m_justEnded.erase(std::remove(m_justEnded.begin(), m_justEnded.end(), callData),
                          m_justEnded.end());
        m_calls.erase(found);
    }
}

void AsyncGrpcClientHandler::startProcessingCompletionQueue() {
    m_threadId = std::this_thread::get_id();
    m_logger->log(Hox::Log::here(), spdlog::level::debug,
                  "{}:{} AsyncGrpcClientHandler Thread Started", ::getpid(), ::gettid());
    void* tag = nullptr;
    bool ok = false;
    for (;;) {
        const auto outcome = m_completionQueue->AsyncNext(
            &tag, &ok, std::chrono::system_clock::now() + waitingTime());
        const std::lock_guard<std::mutex> capabilityLock(*m_capabilityMutex);
        if (outcome == grpc::CompletionQueue::SHUTDOWN) {
            break;
        }
        if (outcome == grpc::CompletionQueue::GOT_EVENT) {
            auto& callData = callOf(tag);
            m_logger->log(Hox::Log::here(), spdlog::level::trace,
                          "{} Received Call Data on Client Queue isOk = {:d} StatusCode {} "
                          "requestState = {}",
                          fmt::ptr(&callData), ok, static_cast<int>(callData.status.error_code()),
                          static_cast<int>(callData.requestState));
            ok ? processOkEvent(callData) : processNotOkEvent(callData);
            continue;
        }
        lookAgainAtEndedCalls();
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_isShuttingDown) {
            break;
        }
    }
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_logger->log(Hox::Log::here(), spdlog::level::debug,
                  "AsyncGrpcClientHandler Thread Exited isOk {:d} isShuttingdown {:d}", ok,
                  m_isShuttingDown);
}

std::chrono::milliseconds AsyncGrpcClientHandler::waitingTime() {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_justEnded.empty() ? pollInterval : lossInterval;
}

AsyncGrpcClientHandler::CallData& AsyncGrpcClientHandler::callOf(void* tag) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return *m_calls.at(static_cast<const CallData*>(tag));
}

void AsyncGrpcClientHandler::processOkEvent(CallData& callData) {
    switch (callData.requestState) {
        case ClientRequestState::STREAM_STARTING:
            if (!callData.status.ok()) {
                callBackIfHeld(callData, nullptr, callData.status);
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
            callBackIfHeld(callData, std::move(received), callData.status);
            readNext(callData);
            return;
        }
        case ClientRequestState::FINISHED_STREAMING:
            m_logger->log(Hox::Log::here(), spdlog::level::trace,
                          "Finished streaming call, deleting callData object {}",
                          fmt::ptr(&callData));
            free(&callData);
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
        callBackIfHeld(callData, std::move(callData.message), callData.status);
        if (!callData.status.ok()) {
            free(&callData);
        }
    } else {
        m_logger->log(Hox::Log::here(), spdlog::level::trace, "Received Finished call {}",
                      fmt::ptr(&callData));
        free(&callData);
    }
}

void AsyncGrpcClientHandler::processNotOkEvent(CallData& callData) {
    if (leaveAlone(callData)) {
        if (!callData.inProcess) {
            m_lossDeadline = std::chrono::steady_clock::now() + lossPeriod;
            const std::lock_guard<std::recursive_mutex> lock(m_mutex);
            m_justEnded.push_back(&callData);
        }
        return;
    }
    tellLoss(callData);
    free(&callData);
}

void AsyncGrpcClientHandler::lookAgainAtEndedCalls() {
    for (auto& call : takeJustEnded()) {
        if (leaveAlone(*call)) {
            const std::lock_guard<std::recursive_mutex> lock(m_mutex);
            if (std::chrono::steady_clock::now() < m_lossDeadline) {
                m_justEnded.push_back(call.get());
            }
            const auto* key = call.get();
            m_calls.emplace(key, std::move(call));
        } else if (call->isHandleHeld()) {
            tellLoss(*call);
        }
    }
}

std::vector<std::unique_ptr<AsyncGrpcClientHandler::CallData>>
AsyncGrpcClientHandler::takeJustEnded() {
    std::vector<std::unique_ptr<CallData>> calls;
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (const auto* call : std::exchange(m_justEnded, {})) {
        auto node = m_calls.extract(call);
        if (!node.empty()) {
            calls.push_back(std::move(node.mapped()));
        }
    }
    return calls;
}

bool AsyncGrpcClientHandler::leaveAlone(CallData& callData) {
    const std::lock_guard<std::mutex> lock(*callData.callMutex);
    if (!mayBeLeftAlone(callData)) {
        return false;  // who drops the handle reads the flag without this lock
    }
    callData.hasEnded = true;
    return true;
}

void AsyncGrpcClientHandler::tellLoss(CallData& callData) {
    m_logger->log(Hox::Log::here(), spdlog::level::debug,
                  "CompletionQueue returned not ok! StatusCode {} ",
                  static_cast<int>(callData.status.error_code()));
    callBackIfHeld(callData, nullptr,
                   grpc::Status(grpc::StatusCode::CANCELLED, "Some error occured!"));
}

bool AsyncGrpcClientHandler::mayBeLeftAlone(const CallData& callData) {
    // The channel of an in-process call has no state to ask for.
    return callData.status.ok() && callData.isHandleHeld() &&
           (callData.inProcess || callData.channel->GetState(false) != GRPC_CHANNEL_IDLE);
}

void AsyncGrpcClientHandler::readNext(CallData& callData) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_isShuttingDown) {
        callData.stream().Read(callData.message.get(), &callData);
    }
}

void AsyncGrpcClientHandler::callBackIfHeld(CallData& callData, std::unique_ptr<Message> message,
                                            const grpc::Status& status) {
    const std::lock_guard<std::mutex> lock(*callData.callMutex);
    if (callData.isHandleHeld()) {
        m_heldCallMutex = callData.callMutex.get();
        callData.callback(std::move(message), status);
        m_heldCallMutex = nullptr;
    }
}

void AsyncGrpcClientHandler::free(const CallData* callData) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_calls.erase(callData);
}

}  // namespace Hox::ObserverTree
