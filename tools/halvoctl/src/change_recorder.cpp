#include "change_recorder.h"

#include <google/protobuf/util/delimited_message_util.h>

#include <cstdint>

#include "ctl_error.h"

namespace Hox::Ctl {

ChangeRecorder::ChangeRecorder(const std::string& path, std::size_t endpoints)
    : m_path(path), m_file(path, std::ios::binary | std::ios::trunc) {
    RecordEntry entry;
    entry.set_endpoints(static_cast<std::uint32_t>(endpoints));
    write(entry);
    flush();
}

void ChangeRecorder::take(const Change& change, const ServiceModel& model,
                          const PackedValues& /*values*/) {
    recordTypeOf(change.current(), change.endpoint(), model);
    recordTypeOf(change.previous(), change.endpoint(), model);
    RecordEntry entry;
    *entry.mutable_change() = change;
    write(entry);
}

void ChangeRecorder::flush() {
    if (!m_file.flush()) {
        throw CtlError(ExitCode::Usage, "cannot write the recording " + m_path);
    }
}

void ChangeRecorder::write(const RecordEntry& entry) {
    google::protobuf::util::SerializeDelimitedToOstream(entry, &m_file);
}

void ChangeRecorder::recordTypeOf(const google::protobuf::Any& value, const std::string& endpoint,
                                  const ServiceModel& model) {
    const auto& url = value.type_url();
    const auto* const type = model.findMessage(url.substr(url.rfind('/') + 1));
    if (type != nullptr) {
        recordFile(*type->file(), endpoint);
    }
}

void ChangeRecorder::recordFile(const google::protobuf::FileDescriptor& file,
                                const std::string& endpoint) {
    if (!m_recorded.emplace(endpoint, file.name()).second) {
        return;
    }
    for (int index = 0; index < file.dependency_count(); ++index) {
        recordFile(*file.dependency(index), endpoint);
    }
    RecordEntry entry;
    entry.set_endpoint(endpoint);
    file.CopyTo(entry.mutable_file());
    write(entry);
}

}  // namespace Hox::Ctl
