#pragma once

#include "ichange_sink.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints changes: each as one line of JSON, or for a reader with one line per changed field.
class ChangePrinter : public IChangeSink {
public:
    /// How changes are printed for a reader.
    struct Style {
        bool isFull = false;       ///< The whole new value as well.
        bool hasEndpoint = false;  ///< The endpoint before the key.
    };

    /// The session must outlive this object.
    ChangePrinter(const Session& session, Style style) : m_session(session), m_style(style) {}

    void take(const Change& change, const ServiceModel& model, const PackedValues& values) override;
    /// Throws CtlError if the output cannot be written.
    void flush() override;

private:
    void printText(const Change& change, const PackedValues& values) const;

    const Session& m_session;
    Style m_style;
};

}  // namespace Hox::Ctl
