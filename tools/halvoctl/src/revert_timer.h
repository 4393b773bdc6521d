#pragma once

#include <chrono>
#include <string>

#include "confirm_record.h"
#include "confirm_records.h"
#include "surroundings.h"

namespace Hox::Ctl {

/// What reverts the change of a record when its time is over: a timer of systemd where that is the
/// system manager and lets the user have one, otherwise a process of its own.
class RevertTimer {
public:
    /// Of the record with this id, in this folder.
    RevertTimer(std::string id, std::string folder);

    /// Starts it. It needs nothing of this process, whose end it does not notice. Throws CtlError
    /// if that fails.
    void start(const Surroundings& surroundings, std::chrono::milliseconds time) const;

    /// Whether it waits for its time, or reverts.
    bool isThere() const;

    /// Ends it, unless its time is over.
    void stop() const;

private:
    bool startUnit(const Surroundings& surroundings, std::chrono::milliseconds time) const;
    void startProcess(std::chrono::milliseconds time) const;
    std::string unit(const std::string& kind) const;

    std::string m_id;
    std::string m_folder;
};

/// How far a change is at this time.
PendingState pendingStateOf(const PendingConfirmation& pending,
                            std::chrono::system_clock::time_point now);

/// Keeps the content in the record and starts the timer of the record; if that fails, the record is
/// removed. Throws CtlError.
void keepWithTimer(ConfirmRecord& record, const Confirmation& content,
                   const Surroundings& surroundings, std::chrono::milliseconds time);

}  // namespace Hox::Ctl
