#include <google/protobuf/stubs/logging.h>

#include <iostream>

#include "command_line.h"
#include "hox/cpputil/log/logsystem.h"
#include "process_surroundings.h"
#include "silent_logsystem.h"

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    google::protobuf::SetLogHandler(nullptr);
    Hox::Log::setLogsystem(std::make_unique<Hox::Ctl::SilentLogsystem>());
    Hox::Ctl::ProcessSurroundings process;
    return static_cast<int>(Hox::Ctl::runCommandLine({argv + 1, argv + argc}, process.get()));
}
