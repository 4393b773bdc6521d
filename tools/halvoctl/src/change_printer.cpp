#include "change_printer.h"

#include "ctl_error.h"
#include "printable.h"

namespace Hox::Ctl {

namespace {

std::string signOf(const Painter& painter, ChangeKind kind) {
    switch (kind) {
        case ADDED:
            return painter.paint(Painter::Color::Green, "+");
        case CHANGED:
            return painter.paint(Painter::Color::Yellow, "~");
        default:
            return painter.paint(Painter::Color::Red, "-");
    }
}

std::string fieldText(const FieldChange& field) {
    switch (field.kind()) {
        case ADDED:
            return field.current();
        case CHANGED:
            return field.previous() + " -> " + field.current();
        default:
            return field.previous();
    }
}

}  // namespace

void ChangePrinter::take(const Change& change, const ServiceModel& /*model*/,
                         const PackedValues& values) {
    if (m_session.isJson()) {
        // In one piece: the stream writes a long text to the file at once, and a line end later.
        m_session.out() << values.json().line(change) + '\n';
    } else {
        printText(change, values);
    }
}

void ChangePrinter::printText(const Change& change, const PackedValues& values) const {
    auto& out = m_session.out();
    const auto& painter = m_session.painter();
    if (m_style.hasEndpoint) {
        out << change.endpoint() << ' ';
    }
    out << signOf(painter, change.kind()) << ' ' << printable(change.key());
    if (change.kind() == ADDED || (change.kind() == CHANGED && m_style.isFull)) {
        out << ' ' << values.text(change.current());
    } else if (change.kind() == REMOVED) {
        out << ' ' << values.text(change.previous());
    } else if (change.kind() == GONE) {
        out << " gone";
    } else if (change.fields().empty() &&
               change.current().SerializeAsString() != change.previous().SerializeAsString()) {
        out << ' ' << values.text(change.previous()) << " -> " << values.text(change.current());
    }
    out << '\n';
    for (const auto& field : change.fields()) {
        out << "    " << signOf(painter, field.kind()) << ' ' << printable(field.path()) << ": "
            << printable(fieldText(field)) << '\n';
    }
}

void ChangePrinter::flush() {
    if (!m_session.out().flush()) {
        throw CtlError(ExitCode::Usage, "");
    }
}

}  // namespace Hox::Ctl
