#pragma once

#include <spdlog/sinks/base_sink.h>

#include <string_view>

#include "hox/linutils/log/journal_record.h"

namespace Hox::Log {

/// Sink that sends each record, formatted with the sink's pattern, to the systemd journal. It
/// formats and sends under the sink's mutex, on the calling thread.
template <typename Mutex>
class systemd_sink : public spdlog::sinks::base_sink<Mutex> {
protected:
    /// Sends the record. A journal that cannot be reached is not reported.
    void sink_it_(const spdlog::details::log_msg& msg) override {
        spdlog::memory_buf_t buffer;
        this->formatter_->format(msg, buffer);
        sendJournalRecord(msg, std::string_view(buffer.data(), buffer.size()));
    }

    /// Nothing to do: the journal buffers nothing on this side.
    void flush_() override {}
};

}  // namespace Hox::Log
