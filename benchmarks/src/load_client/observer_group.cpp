#include "load_client/observer_group.h"

#include <stdexcept>
#include <utility>

namespace Hox::Benchmarks {

/// One stream: request, then one read after the other, then the status.
class ObserverGroup::Stream : public EventHandler {
public:
    Stream(ObserverGroup& group, const grpc::ByteBuffer& request)
        : m_group(group), m_request(request) {
        m_call = group.m_stub.PrepareCall(&m_context, group.m_method, &group.m_loop.queue());
        m_call->StartCall(this);
    }

    void cancel() { m_context.TryCancel(); }

    void handle(bool ok) override {
        if (m_step == Step::Ending) {
            ++m_group.m_ended;
            return;
        }
        if (!ok) {
            if (!m_group.m_isClosing) {
                throw std::runtime_error("An observe stream has ended");
            }
            m_step = Step::Ending;
            m_call->Finish(&m_status, this);
            return;
        }
        advance();
    }

    const grpc::ByteBuffer& element() const { return m_element; }

private:
    enum class Step { Starting, Writing, ReadingSnapshot, ReadingChange, Ending };

    void advance() {
        if (m_step == Step::Starting) {
            m_step = Step::Writing;
            m_call->WriteLast(m_request, grpc::WriteOptions(), this);
            return;
        }
        if (m_step == Step::Writing) {
            m_step = Step::ReadingSnapshot;
        } else if (m_step == Step::ReadingSnapshot) {
            m_step = Step::ReadingChange;
            ++m_group.m_snapshots;
        } else {
            ++m_group.m_arrivals;
            m_group.m_onArrival();
        }
        m_call->Read(&m_element, this);
    }

    ObserverGroup& m_group;
    grpc::ClientContext m_context;
    grpc::ByteBuffer m_request;
    grpc::ByteBuffer m_element;
    grpc::Status m_status;
    std::unique_ptr<grpc::GenericClientAsyncReaderWriter> m_call;
    Step m_step = Step::Starting;
};

ObserverGroup::ObserverGroup(EventLoop& loop, const std::shared_ptr<grpc::Channel>& channel,
                             std::string method, ArrivalHandler onArrival)
    : m_loop(loop),
      m_stub(channel),
      m_method(std::move(method)),
      m_onArrival(std::move(onArrival)) {}

ObserverGroup::~ObserverGroup() = default;

void ObserverGroup::open(const std::vector<grpc::ByteBuffer>& requests) {
    for (const auto& request : requests) {
        m_streams.push_back(std::make_unique<Stream>(*this, request));
    }
    m_loop.runUntil("the snapshots", [this] { return m_snapshots == m_streams.size(); });
}

void ObserverGroup::close() {
    m_isClosing = true;
    for (const auto& stream : m_streams) {
        stream->cancel();
    }
    m_loop.runUntil("the end of the streams", [this] { return m_ended == m_streams.size(); });
    m_streams.clear();
}

const grpc::ByteBuffer& ObserverGroup::lastElement() const {
    return m_streams.front()->element();
}

}  // namespace Hox::Benchmarks
