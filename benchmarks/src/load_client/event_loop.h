#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <functional>

#include "common/event_handler.h"

namespace Hox::Benchmarks {

using Clock = std::chrono::steady_clock;

/// The client's one completion queue, polled by the main thread.
class EventLoop {
public:
    EventLoop() = default;
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop(EventLoop&&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    EventLoop& operator=(EventLoop&&) = delete;

    grpc::CompletionQueue& queue() { return m_queue; }

    /// Handles events until the condition holds; tests it after each event. Throws
    /// std::runtime_error, which names the condition, after 60 seconds.
    void runUntil(const char* what, const std::function<bool()>& condition);

private:
    grpc::CompletionQueue m_queue;
};

}  // namespace Hox::Benchmarks
