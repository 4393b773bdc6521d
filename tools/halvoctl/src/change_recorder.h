#pragma once

#include <google/protobuf/descriptor.h>

#include <cstddef>
#include <fstream>
#include <set>
#include <string>
#include <utility>

#include "ichange_sink.h"

namespace Hox::Ctl {

/// Records changes in a file, with the proto files that it takes to read them.
class ChangeRecorder : public IChangeSink {
public:
    /// Makes the file, or empties it, for the changes of so many services. Throws CtlError if that
    /// fails.
    ChangeRecorder(const std::string& path, std::size_t endpoints);

    void take(const Change& change, const ServiceModel& model, const PackedValues& values) override;
    /// Throws CtlError if the file cannot be written.
    void flush() override;

private:
    void write(const RecordEntry& entry);
    void recordTypeOf(const google::protobuf::Any& value, const std::string& endpoint,
                      const ServiceModel& model);
    void recordFile(const google::protobuf::FileDescriptor& file, const std::string& endpoint);

    std::string m_path;
    std::ofstream m_file;
    std::set<std::pair<std::string, std::string>> m_recorded;  // endpoint and name
};

}  // namespace Hox::Ctl
