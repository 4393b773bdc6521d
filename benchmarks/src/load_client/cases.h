#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "load_client/event_loop.h"
#include "load_client/measuring.h"
#include "load_client/observer_group.h"
#include "load_client/server_meter.h"

namespace Hox::Benchmarks {

/// The options of the cases, from the command line.
struct CaseOptions {
    std::string target;                   ///< address of the server
    std::string writer;                   ///< address for the writer, if it is another one
    std::string type;                     ///< type of the reports, if it is another one
    int rate = 1000;                      ///< paced calls per second
    int process = 0;                      ///< the server's process id
    std::size_t outstanding = 1;          ///< number of concurrent calls
    std::size_t observers = 0;            ///< number of streams
    std::size_t connections = 0;          ///< connections that are open and idle
    bool isApart = false;                 ///< whether each observer has a connection of its own
    int origins = 100;                    ///< number of origins that report in turn
    int settings = 10;                    ///< keys of an update of the configuration
    bool isSaving = false;                ///< whether the configuration is saved again and again
    int markers = 0;                      ///< number of origins that one observer each watches
    std::chrono::milliseconds time{500};  ///< duration of the measured part
};

/// The measured cases. Each uses its own channel and checks once that the server answers as
/// expected. Throws std::runtime_error if it does not.
class Cases {
public:
    explicit Cases(const CaseOptions& options);

    /// Runs the named case. Throws std::runtime_error for an unknown name.
    Figures run(const std::string& name);

private:
    Figures fill();
    Figures fillConfiguration();
    Figures create();
    Figures arrivals();
    Figures createPaced();
    Figures currentState();
    Figures notifications();
    Figures delay();
    Figures deliveries();
    Figures snapshot();
    Figures memory();
    Figures updateConfiguration();
    Figures configurationSnapshot();
    Figures createDelay();

    std::shared_ptr<grpc::Channel> connect() const;
    static std::shared_ptr<grpc::Channel> connectTo(const std::string& target);
    std::vector<std::shared_ptr<grpc::Channel>> connectIdle() const;
    std::vector<std::unique_ptr<ObserverGroup>> openSilentObservers();
    std::vector<grpc::ByteBuffer> createRequests() const;
    std::vector<grpc::ByteBuffer> markerRequests(std::size_t first, std::size_t count) const;
    Figures measureUnary(const char* method, std::vector<grpc::ByteBuffer> requests);

    const CaseOptions m_options;
    const ServerMeter m_meter;
    EventLoop m_loop;
};

}  // namespace Hox::Benchmarks
