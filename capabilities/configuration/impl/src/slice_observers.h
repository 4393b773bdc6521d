#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "configuration.pb.h"
#include "hox/cpputil/timer/timer.h"
#include "hox/observer_tree/tree_types.h"

namespace Hox::Capability::Configuration {

/// The observers of slices: one for each slice.
///
/// An owner that has lost its connection comes back over a new one, and its request may overtake
/// the end of its former stream. Such a newcomer waits until that stream has ended. A second
/// observer beside one that stays is a programming error and fails an assertion.
///
/// The public functions except the constructor and the destructor run under the capability's mutex,
/// and so do the callbacks that they call.
class SliceObservers {
public:
    using Callback = Hox::ObserverTree::ObserverCallback;

    /// Sends the content of its slice to an observer.
    using Greeting = std::function<void(const Api::ObserveCapConfReq&, const Callback&)>;

    /// The minimum time that a newcomer waits. While the capability is busy it waits longer.
    static constexpr std::chrono::milliseconds patience{2000};

    /// The mutex is the capability's.
    SliceObservers(std::shared_ptr<std::mutex> capabilityMutex, Greeting greeting);

    /// Forgets those that wait. The caller does not hold the mutex, which the thread may need.
    ~SliceObservers();
    SliceObservers(const SliceObservers&) = delete;
    SliceObservers(SliceObservers&&) = delete;
    SliceObservers& operator=(const SliceObservers&) = delete;
    SliceObservers& operator=(SliceObservers&&) = delete;

    /// An observer arrives: it is greeted immediately, or when the former observer of its slice has
    /// left. The callback is identified by its address until the observer leaves.
    void arrive(const Api::ObserveCapConfReq& request, const Callback& callback);

    /// An observer leaves. Asserts that its slice has one.
    void leave(const Api::ObserveCapConfReq& request, const Callback& callback);

    /// Delivers changes to the observer of the slice, if there is one that has been greeted.
    void tell(const std::string& uniqueConfId,
              const Hox::ObserverTree::ChangeSetType& changes) const;

private:
    struct Observer {
        const Callback* identity;
        Callback callback;
    };

    struct Newcomer {
        Observer observer;
        Api::ObserveCapConfReq request;
        int looksLeft;  // remaining checks until it has waited long enough
    };

    // REQUIRES(*m_capabilityMutex)
    void admit(const std::string& uniqueConfId, const Observer& observer,
               const Api::ObserveCapConfReq& request);
    void admitNext(const std::string& uniqueConfId);  // REQUIRES(*m_capabilityMutex)
    // REQUIRES(*m_capabilityMutex)
    bool forgetNewcomer(const std::string& uniqueConfId, const Callback& callback);
    void startLooking();  // REQUIRES(*m_capabilityMutex)
    /// On the timer's thread.
    void look();

    const std::shared_ptr<std::mutex> m_capabilityMutex;
    const Greeting m_greeting;
    std::map<std::string, Observer> m_observeCbMap;           // GUARDED_BY(*m_capabilityMutex)
    std::map<std::string, std::deque<Newcomer>> m_newcomers;  // GUARDED_BY(*m_capabilityMutex)
    bool m_isLooking = false;                                 // GUARDED_BY(*m_capabilityMutex)
    /// Destroyed first: its thread uses all other members.
    Hox::CppUtil::Timer m_timer;
};

}  // namespace Hox::Capability::Configuration
