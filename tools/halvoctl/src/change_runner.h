#pragma once

#include <functional>
#include <string>

#include "ichange_sink.h"

namespace Hox::Ctl {

/// Runs a command of the shell for each change, with the change as JSON on its standard input, one
/// after the other.
class ChangeRunner : public IChangeSink {
public:
    /// A command that fails is noted.
    ChangeRunner(std::string command, std::function<void(const std::string&)> note)
        : m_command(std::move(command)), m_note(std::move(note)) {}

    /// Throws CtlError if the command cannot be started.
    void take(const Change& change, const ServiceModel& model, const PackedValues& values) override;
    void flush() override {}

private:
    std::string m_command;
    std::function<void(const std::string&)> m_note;
};

}  // namespace Hox::Ctl
