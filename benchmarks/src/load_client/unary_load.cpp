#include "load_client/unary_load.h"

#include <optional>
#include <stdexcept>
#include <utility>

namespace Hox::Benchmarks {

/// One outstanding call, restarted after each answer.
class UnaryLoad::Slot : public EventHandler {
public:
    explicit Slot(UnaryLoad& load) : m_load(load) {}

    void startUnlessOver() {
        if (!m_load.m_goesOn()) {
            return;
        }
        // The reader is allocated in memory of the context's call: it must be destroyed first.
        m_reader.reset();
        m_context.emplace();
        const auto& request = m_load.m_requests[m_load.m_started++ % m_load.m_requests.size()];
        m_reader = m_load.m_stub.PrepareUnaryCall(&*m_context, m_load.m_method, request,
                                                  &m_load.m_loop.queue());
        m_reader->StartCall();
        m_reader->Finish(&m_answer, &m_status, this);
    }

    void handle(bool /*ok*/) override {
        if (!m_status.ok()) {
            throw std::runtime_error(m_load.m_method + ": " + m_status.error_message());
        }
        ++m_load.m_answered;
        startUnlessOver();
    }

    const grpc::ByteBuffer& answer() const { return m_answer; }

private:
    UnaryLoad& m_load;
    std::optional<grpc::ClientContext> m_context;
    std::unique_ptr<grpc::GenericClientAsyncResponseReader> m_reader;
    grpc::ByteBuffer m_answer;
    grpc::Status m_status;
};

UnaryLoad::UnaryLoad(EventLoop& loop, const std::shared_ptr<grpc::Channel>& channel,
                     std::string method, std::vector<grpc::ByteBuffer> requests)
    : m_loop(loop), m_stub(channel), m_method(std::move(method)), m_requests(std::move(requests)) {}

UnaryLoad::~UnaryLoad() = default;

void UnaryLoad::run(std::size_t outstanding, const std::function<bool()>& goesOn) {
    start(outstanding, goesOn);
    finish();
}

void UnaryLoad::start(std::size_t outstanding, const std::function<bool()>& goesOn) {
    m_goesOn = goesOn;
    while (m_slots.size() < outstanding) {
        m_slots.push_back(std::make_unique<Slot>(*this));
    }
    for (std::size_t i = 0; i < outstanding; ++i) {
        m_slots[i]->startUnlessOver();
    }
}

void UnaryLoad::finish() {
    m_loop.runUntil("answers", [this] { return m_answered == m_started && !m_goesOn(); });
}

const grpc::ByteBuffer& UnaryLoad::callOnce() {
    const auto last = m_started + 1;
    run(1, [this, last] { return m_started < last; });
    return m_slots.front()->answer();
}

const grpc::ByteBuffer& UnaryLoad::callOnce(grpc::ByteBuffer request) {
    m_requests.clear();
    m_requests.push_back(std::move(request));
    return callOnce();
}

}  // namespace Hox::Benchmarks
