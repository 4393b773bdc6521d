#include "replay_command.h"

#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/util/delimited_message_util.h>

#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "change_printer.h"
#include "ctl_error.h"
#include "known_files.h"

namespace Hox::Ctl {

namespace {

/// One of the services that were recorded.
class RecordedService {
public:
    RecordedService() : RecordedService(std::make_unique<KnownFiles>()) {}

    KnownFiles& files() { return m_files; }
    const ServiceModel& model() const { return m_model; }
    const PackedValues& values() const { return m_values; }

private:
    explicit RecordedService(std::unique_ptr<KnownFiles> files)
        : m_files(*files), m_model(std::move(files)) {}

    KnownFiles& m_files;  // in the model
    ServiceModel m_model;
    PackedValues m_values{m_model};
};

}  // namespace

ExitCode replay(Session& session, const std::string& path, bool isFull) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw CtlError(ExitCode::Usage, "cannot read " + path);
    }
    std::map<std::string, RecordedService> services;  // by endpoint
    std::optional<ChangePrinter> printer;
    google::protobuf::io::IstreamInputStream input(&file);
    bool isEnd = false;
    RecordEntry entry;
    while (google::protobuf::util::ParseDelimitedFromZeroCopyStream(&entry, &input, &isEnd)) {
        if (entry.endpoints() > 0) {
            printer.emplace(session, ChangePrinter::Style{isFull, entry.endpoints() > 1});
        } else if (!printer) {
            break;
        } else if (entry.has_file()) {
            services[entry.endpoint()].files().add(entry.file());
        } else if (entry.has_change()) {
            const auto& service = services[entry.change().endpoint()];
            printer->take(entry.change(), service.model(), service.values());
        }
        session.checkInterrupt();
        entry.Clear();
    }
    if (!printer) {
        throw CtlError(ExitCode::Usage, path + " is no recording");
    }
    printer->flush();
    if (!isEnd) {
        session.note("the recording ends in the middle of a change");
    }
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
