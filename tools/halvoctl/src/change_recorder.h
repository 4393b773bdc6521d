#pragma once

#include <google/protobuf/descriptor.h>

#include <fstream>
#include <set>
#include <string>

#include "ichange_sink.h"

namespace Hox::Ctl {

/// Records changes in a file, with the proto files that it takes to read them.
class ChangeRecorder : public IChangeSink {
public:
    /// Makes the file, or empties it. Throws CtlError if that fails.
    explicit ChangeRecorder(const std::string& path);

    void take(const Change& change, const ServiceModel& model, const PackedValues& values) override;
    /// Throws CtlError if the file cannot be written.
    void flush() override;

private:
    void write(const RecordEntry& entry);
    void recordTypeOf(const google::protobuf::Any& value, const ServiceModel& model);
    void recordFile(const google::protobuf::FileDescriptor& file);

    std::string m_path;
    std::ofstream m_file;
    std::set<std::string> m_recorded;
};

}  // namespace Hox::Ctl
