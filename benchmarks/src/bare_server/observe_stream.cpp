#include "bare_server/observe_stream.h"

#include <utility>

namespace Hox::Benchmarks {

ObserveStream::ObserveStream() : m_writer(&m_context), m_doneHandler(*this) {
    m_context.AsyncNotifyWhenDone(&m_doneHandler);
}

void ObserveStream::handle(bool ok) {
    if (!m_isStarted) {
        if (ok) {
            requestNext();
        }
        if (!ok || m_isDone) {
            delete this;
            return;
        }
        m_isStarted = true;
        start();
        return;
    }
    m_isWriting = false;
    if (m_isDone) {
        delete this;
    } else if (ok && !m_queue.empty()) {
        m_isWriting = true;
        m_writer.Write(m_queue.front(), this);
        m_queue.pop_front();
    }
}

void ObserveStream::write(ObserverTree::ObsTreeObserveChangeSet element) {
    if (m_isWriting) {
        m_queue.push_back(std::move(element));
    } else if (!m_isDone) {
        m_isWriting = true;
        m_writer.Write(element, this);
    }
}

void ObserveStream::DoneHandler::handle(bool /*ok*/) {
    m_stream.m_isDone = true;
    m_stream.onDone();
    if (m_stream.m_isStarted && !m_stream.m_isWriting) {
        delete &m_stream;
    }
}

}  // namespace Hox::Benchmarks
