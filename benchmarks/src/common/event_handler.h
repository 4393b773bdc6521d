#pragma once

namespace Hox::Benchmarks {

/// The object that a completion-queue tag points to.
class EventHandler {
public:
    EventHandler() = default;
    virtual ~EventHandler() = default;
    EventHandler(const EventHandler&) = delete;
    EventHandler(EventHandler&&) = delete;
    EventHandler& operator=(const EventHandler&) = delete;
    EventHandler& operator=(EventHandler&&) = delete;

    /// Handles the completion, on the one thread of the queue. May delete this object.
    virtual void handle(bool ok) = 0;
};

}  // namespace Hox::Benchmarks
