#pragma once

#include <grpcpp/grpcpp.h>

#include "bare_server/bare_answers.h"
#include "bare_server/observe_stream.h"
#include "common/sample_configuration.h"
#include "configuration.grpc.pb.h"

namespace Hox::Benchmarks {

/// The shared state of all streams of slices; lives as long as the server.
struct SliceStreams {
    ConfApi::ConfigurationService::AsyncService& service;
    grpc::ServerCompletionQueue& queue;
    const BareAnswers& answers;
};

/// A stream of a slice: sends its content and then nothing.
class SliceStream : public ObserveStream {
public:
    /// Waits for a stream; the object deletes itself.
    static void request(const SliceStreams& streams) { new SliceStream(streams); }

private:
    explicit SliceStream(const SliceStreams& streams) : m_streams(streams) {
        streams.service.RequestobserveCapConf(&context(), &m_request, &writer(), &streams.queue,
                                              &streams.queue, this);
    }

    void requestNext() override { request(m_streams); }
    void start() override { write(m_streams.answers.slice()); }

    const SliceStreams& m_streams;
    ConfApi::ObserveCapConfReq m_request;
};

}  // namespace Hox::Benchmarks
