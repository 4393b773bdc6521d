#include "field_differences.h"

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>

#include <string>

#include "printable.h"

namespace Hox::Ctl {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::util::MessageDifferencer;

namespace {

using SpecificField = MessageDifferencer::SpecificField;

std::string scalarText(const Message& holder, const FieldDescriptor& field, int index) {
    google::protobuf::TextFormat::Printer printer;
    printer.SetUseUtf8StringEscaping(true);
    std::string text;
    printer.PrintFieldValueToString(holder, &field, index, &text);
    return printable(text);
}

/// Collects the differences. Gets the messages that hold the last field of a path.
class Collector : public MessageDifferencer::Reporter {
public:
    explicit Collector(const JsonText& json) : m_json(json) {}

    void ReportAdded(const Message& /*before*/, const Message& after,
                     const std::vector<SpecificField>& path) override {
        auto& change = add(ADDED, path);
        change.set_current(valueText(after, path.back(), path.back().new_index));
    }

    void ReportDeleted(const Message& before, const Message& /*after*/,
                       const std::vector<SpecificField>& path) override {
        auto& change = add(REMOVED, path);
        change.set_previous(valueText(before, path.back(), path.back().index));
    }

    void ReportModified(const Message& before, const Message& after,
                        const std::vector<SpecificField>& path) override {
        if (isTime(*before.GetDescriptor()) || isReportedWithin(pathText(path))) {
            return;
        }
        auto& change = add(CHANGED, path);
        change.set_previous(valueText(before, path.back(), path.back().index));
        change.set_current(valueText(after, path.back(), path.back().new_index));
    }

    std::vector<FieldChange> take() { return std::move(m_changes); }

private:
    FieldChange& add(ChangeKind kind, const std::vector<SpecificField>& path) {
        auto& change = m_changes.emplace_back();
        change.set_kind(kind);
        change.set_path(pathText(path));
        return change;
    }

    /// The fields of a message are reported before the message itself.
    bool isReportedWithin(const std::string& path) const {
        if (m_changes.empty()) {
            return false;
        }
        const auto& last = m_changes.back().path();
        return last.size() > path.size() && last.compare(0, path.size(), path) == 0 &&
               (last[path.size()] == '.' || last[path.size()] == '[');
    }

    /// Seconds and nanoseconds are read as one value.
    static bool isTime(const google::protobuf::Descriptor& type) {
        return type.full_name() == "google.protobuf.Timestamp" ||
               type.full_name() == "google.protobuf.Duration";
    }

    static std::string pathText(const std::vector<SpecificField>& path) {
        std::string text;
        for (const auto& step : path) {
            text += text.empty() ? "" : ".";
            if (step.field == nullptr) {
                text += std::to_string(step.unknown_field_number);
                continue;
            }
            text += step.field->name();
            const auto* const entry =
                step.map_entry1 != nullptr ? step.map_entry1 : step.map_entry2;
            if (entry != nullptr) {
                text += "[" + scalarText(*entry, *entry->GetDescriptor()->map_key(), -1) + "]";
            } else if (step.field->is_repeated()) {
                text +=
                    "[" + std::to_string(step.new_index < 0 ? step.index : step.new_index) + "]";
            }
        }
        return text;
    }

    std::string valueText(const Message& holder, const SpecificField& step, int index) const {
        if (step.field == nullptr) {
            return "(unknown)";
        }
        const auto& field = *step.field;
        if (field.cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) {
            return scalarText(holder, field, field.is_repeated() ? index : -1);
        }
        const auto& reflection = *holder.GetReflection();
        const auto& value = field.is_repeated()
                                ? reflection.GetRepeatedMessage(holder, &field, index)
                                : reflection.GetMessage(holder, &field);
        if (field.is_map()) {
            const auto& content = *value.GetDescriptor()->map_value();
            return content.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE
                       ? m_json.line(value.GetReflection()->GetMessage(value, &content))
                       : scalarText(value, content, -1);
        }
        if (!field.is_repeated() && !reflection.HasField(holder, &field)) {
            return "none";
        }
        return m_json.line(value);
    }

    const JsonText& m_json;
    std::vector<FieldChange> m_changes;
};

}  // namespace

std::vector<FieldChange> fieldDifferences(const Message& before, const Message& after,
                                          const JsonText& json) {
    Collector collector(json);
    MessageDifferencer differencer;
    differencer.set_message_field_comparison(MessageDifferencer::EQUIVALENT);
    differencer.ReportDifferencesTo(&collector);
    differencer.Compare(before, after);
    return collector.take();
}

}  // namespace Hox::Ctl
