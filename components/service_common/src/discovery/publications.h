#pragma once

#include <spdlog/logger.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hox/cpputil/log/logger_name.h"
#include "hox/service_discovery/iservice_discovery_client.h"

namespace Hox::Service {

/// What this service has published, kept on the network for as long as it is wanted.
///
/// One thread publishes. After a loss of the daemon it starts the client anew as soon as that is
/// possible and publishes everything again; what is refused then is tried again, less and less
/// often. Owned by shared pointer, because handles refer to it weakly.
class Publications : public std::enable_shared_from_this<Publications> {
public:
    /// Starts the thread. The client has been started, or is about to be; the owner calls lost()
    /// when it reports ClientLost. Throws std::system_error if no thread can be created.
    explicit Publications(std::shared_ptr<Discovery::IServiceDiscoveryClient> client);

    /// As end().
    ~Publications();

    Publications(const Publications&) = delete;
    Publications& operator=(const Publications&) = delete;

    /// Publishes the service and returns its first outcome: Published with a handle that keeps it
    /// on the network, otherwise an empty handle. A loss of the daemon is no outcome: it waits for
    /// another one. Dropping the handle withdraws the service; it may be dropped on any thread that
    /// holds no lock of a callback of the client, also after the end of this object.
    ///
    /// Throws ServiceDiscoveryError if the daemon gives no place for the service. On any thread but
    /// those of the client, and not after end().
    std::pair<Discovery::Status, Discovery::Handle> publish(
        const Discovery::NetworkService& service);

    /// All that was published is lost. On any thread; takes only a short lock.
    void lost();

    /// Stops the client and takes everything off the network for good; no event of the client is
    /// reported any more. Takes about a second at most. Only the first call has an effect. Must
    /// not be called by two threads at the same time, nor on a thread of the client.
    void end();

private:
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;

    enum class State {
        Wanted,     // to be published once it is due
        Asked,      // the daemon has not answered
        Published,  // on the network
        Refused,    // as far as is known not because of a loss
        Final       // refused to whoever waits for the first outcome
    };

    struct Publication {
        Discovery::NetworkService service;
        Discovery::Handle handle;  // of the attempt; dropped under no lock
        State state = State::Wanted;
        bool isFirst = true;        // whether somebody waits for the outcome
        std::uint64_t attempt = 0;  // outcomes of earlier attempts are ignored
        Clock::time_point due;      // next attempt; if refused: when the refusal is believed
        std::chrono::seconds delay = firstDelay;  // until the next attempt
        Discovery::Status status = Discovery::Registering;
        std::exception_ptr error;
    };
    using Map = std::map<unsigned int, Publication>;

    /// One attempt.
    struct Question {
        unsigned int id = 0;
        std::uint64_t attempt = 0;
        Discovery::NetworkService service;
    };

    /// Until what was published before is tried again after a refusal; doubled each time.
    static constexpr std::chrono::seconds firstDelay{1};
    static constexpr std::chrono::seconds longestDelay{64};

    /// How long a refusal can still turn out to be a loss of the daemon.
    static constexpr std::chrono::seconds grace{1};

    void run();
    void connectAndAsk();
    bool connect();
    std::vector<Question> takeQuestions();
    bool isStillAsked(const Question& question);
    void ask(const Question& question);
    void keep(const Question& question, Discovery::Handle handle);
    void answered(const Question& question, Discovery::Status status,
                  const std::exception_ptr& error);
    void withdraw(unsigned int id);

    // REQUIRES(m_mutex)
    bool hasWork() const;
    Publication* find(const Question& question);
    void waitForOutcome(Lock& lock, const Publication& publication);
    void settleRefusals();
    void tryLater(Publication& publication, Clock::time_point now);
    void tellProgress();
    void waitForChange(Lock& lock);
    static void want(Publication& publication);

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

    const std::shared_ptr<spdlog::logger> m_logger;
    const std::shared_ptr<Discovery::IServiceDiscoveryClient> m_client;

    std::mutex m_mutex;  // of the client, only isStarted() is called under it
    std::condition_variable m_changed;
    Map m_publications;            // GUARDED_BY(m_mutex)
    unsigned int m_lastId = 0;     // GUARDED_BY(m_mutex)
    bool m_isLost = false;         // the client must be started. GUARDED_BY(m_mutex)
    bool m_isLossTold = false;     // in the log, unlike its end. GUARDED_BY(m_mutex)
    bool m_isRefusalTold = false;  // the same of a refusal. GUARDED_BY(m_mutex)
    bool m_isEnding = false;       // GUARDED_BY(m_mutex)
    std::thread m_thread;
};

}  // namespace Hox::Service
