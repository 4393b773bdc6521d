#include "load_client/event_loop.h"

#include <stdexcept>
#include <string>

namespace Hox::Benchmarks {

EventLoop::~EventLoop() {
    m_queue.Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (m_queue.Next(&tag, &ok)) {
        // On error, operations in flight have no owner any more.
    }
}

void EventLoop::runUntil(const char* what, const std::function<bool()>& condition) {
    const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        void* tag = nullptr;
        bool ok = false;
        if (m_queue.AsyncNext(&tag, &ok, deadline) != grpc::CompletionQueue::GOT_EVENT) {
            throw std::runtime_error(std::string("Waited in vain for ") + what);
        }
        static_cast<EventHandler*>(tag)->handle(ok);
    }
}

}  // namespace Hox::Benchmarks
