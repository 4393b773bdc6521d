#pragma once

#include "command.h"

namespace CLI {
class App;
}

namespace Hox::Ctl {

/// Each adds the words of some commands to the command line; parsing them sets the command, which
/// must outlive the command line.
///@{
void addServiceWords(CLI::App& app, Command& command);
void addWatchWords(CLI::App& app, Command& command);
void addStateWords(CLI::App& app, Command& command);
void addLogWords(CLI::App& app, Command& command);
void addSnmpWords(CLI::App& app, Command& command);
void addCompletionWords(CLI::App& app, Command& command);
void addConfWords(CLI::App& app, Command& command);
void addDoctorWords(CLI::App& app, Command& command);
///@}

/// The same for words below `conf`.
///@{
void addConfirmWords(CLI::App& conf, Command& command);
void addPackageWords(CLI::App& conf, Command& command);
///@}

}  // namespace Hox::Ctl
