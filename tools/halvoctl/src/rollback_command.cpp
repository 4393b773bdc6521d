#include "rollback_command.h"

#include <algorithm>
#include <chrono>

#include "ask_first.h"
#include "call_error.h"
#include "confirm_records.h"
#include "confirm_report.h"
#include "ctl_error.h"
#include "duration.h"
#include "printable.h"
#include "revert_timer.h"
#include "reverter.h"

namespace Hox::Ctl {

namespace {

using SteadyClock = std::chrono::steady_clock;

/// How often a waiting process looks whether there is still something to wait for.
constexpr std::chrono::milliseconds step(500);

std::string textFor(const Confirmation& content, const std::string& objection) {
    return "The " + changeText(content) + " is not rolled back: " + objection;
}

std::string hintFor(const std::string& id) {
    return "halvoctl conf confirm " + id + " keeps what is there, halvoctl conf rollback " + id +
           " reverts it";
}

}  // namespace

ExitCode RollbackCommand::run(Session& session) const {
    return m_options.isAuto ? runAtTimeOut(session) : runByHand(session);
}

ExitCode RollbackCommand::runByHand(const Session& session) const {
    const auto record =
        openPending(session.surroundings(), m_options.id, session.options().timeout);
    const auto& content = record->content();
    const auto at = session.withEndpoint(content.endpoint());
    const auto connection = at.connect();
    const Reverter reverter(*record, *connection);
    const auto finding = reverter.examine();
    if (!finding.objection.empty()) {
        session.note(changeText(content) + ": " + finding.objection);
        askFirst(at, m_options.isSure, "Revert it all the same and lose that");
    }
    if (!finding.isReverted) {
        reverter.revert();
    }
    record->remove();
    RevertTimer(record->id(), record->folder()).stop();
    ConfirmReport(at, *connection).settle("The " + changeText(content) + " is rolled back");
    return ExitCode::Done;
}

ExitCode RollbackCommand::runAtTimeOut(const Session& session) const {
    const auto retry = parseDuration(m_options.retry);
    if (!waitForTime(session)) {
        return ExitCode::Done;
    }
    const auto deadline = SteadyClock::now() + retry;
    for (;;) {
        try {
            return tryOnce(session);
        } catch (const CtlError& error) {
            if (error.code() != ExitCode::Unreachable) {
                throw;
            }
            if (SteadyClock::now() >= deadline) {
                complainLate(session, error.what());
                throw;
            }
        }
        if (session.surroundings().interrupt.waitFor(step)) {
            throw CtlError(ExitCode::Interrupted, "");
        }
    }
}

/// Waits for the end of the time. Returns false if the change has been confirmed or reverted until
/// then.
bool RollbackCommand::waitForTime(const Session& session) const {
    const auto folder = confirmFolder(session.surroundings()) + "/" + m_options.id;
    const auto end = SteadyClock::now() + parseDuration(m_options.after);
    while (ConfirmRecord::read(folder)) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - SteadyClock::now());
        if (left.count() <= 0) {
            return true;
        }
        if (session.surroundings().interrupt.waitFor(std::min(left, step))) {
            throw CtlError(ExitCode::Interrupted, "");
        }
    }
    return false;
}

/// Tells the service, if it can be told, that the attempts have ended.
void RollbackCommand::complainLate(const Session& session, const std::string& reason) const {
    const auto content =
        ConfirmRecord::read(confirmFolder(session.surroundings()) + "/" + m_options.id);
    if (!content) {
        return;
    }
    const auto at = session.withEndpoint(content->endpoint());
    try {
        ConfirmReport(at, *at.connect())
            .complain(textFor(*content, reason), hintFor(content->id()));
    } catch (const CtlError& error) {
        session.note(error.what());
    }
}

ExitCode RollbackCommand::tryOnce(const Session& session) const {
    const auto record = ConfirmRecord::open(session.surroundings(), m_options.id, step);
    if (!record) {
        return ExitCode::Done;
    }
    const auto& content = record->content();
    const auto at = session.withEndpoint(content.endpoint());
    const auto connection = at.connect();
    const Reverter reverter(*record, *connection);
    const ConfirmReport report(at, *connection);
    std::string objection;
    try {
        const auto finding = reverter.examine();
        objection = finding.objection;
        if (objection.empty() && !finding.isReverted) {
            reverter.revert();
        }
    } catch (const CallError& error) {
        if (error.isOutcomeOpen()) {
            throw CtlError(ExitCode::Unreachable, error.what(), error.hint());
        }
        objection = error.what();
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw;
        }
        objection = error.what();
    }
    if (!objection.empty()) {
        const auto text = textFor(content, objection);
        report.complain(text, hintFor(record->id()));
        throw CtlError(ExitCode::No, text, hintFor(record->id()));
    }
    record->remove();
    report.settle("The " + changeText(content) + " is rolled back");
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
