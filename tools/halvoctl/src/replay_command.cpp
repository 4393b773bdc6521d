#include "replay_command.h"

#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/util/delimited_message_util.h>

#include <fstream>
#include <memory>
#include <set>
#include <utility>

#include "change_printer.h"
#include "ctl_error.h"
#include "known_files.h"

namespace Hox::Ctl {

ExitCode replay(Session& session, const std::string& path, bool isFull) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw CtlError(ExitCode::Usage, "cannot read " + path);
    }
    auto source = std::make_unique<KnownFiles>();
    auto& files = *source;
    const ServiceModel model(std::move(source));
    const PackedValues values(model);
    ChangePrinter printer(session, {isFull, false});
    google::protobuf::io::IstreamInputStream input(&file);
    bool isEnd = false;
    bool isFirst = true;
    RecordEntry entry;
    while (google::protobuf::util::ParseDelimitedFromZeroCopyStream(&entry, &input, &isEnd)) {
        isFirst = false;
        if (entry.has_file()) {
            files.add(entry.file());
        } else if (entry.has_change()) {
            printer.take(entry.change(), model, values);
        }
        session.checkInterrupt();
        entry.Clear();
    }
    printer.flush();
    if (isFirst && !isEnd) {
        throw CtlError(ExitCode::Usage, path + " is no recording");
    }
    if (!isEnd) {
        session.note("the recording ends in the middle of a change");
    }
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
