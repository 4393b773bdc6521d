#include "redactor.h"

#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/stubs/strutil.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <algorithm>
#include <cctype>

#include "hox/observer_tree/persistence/value_text.h"
#include "saved_value.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

namespace {

const std::string mask = "***";

/// The text as it is inside of a JSON text.
std::string jsonForm(const std::string& text) {
    google::protobuf::StringValue value;
    value.set_value(text);
    std::string json;
    static_cast<void>(google::protobuf::util::MessageToJsonString(value, &json));
    return json.size() < 2 ? text : json.substr(1, json.size() - 2);
}

bool isWordPart(const std::string& text, std::size_t position) {
    return position < text.size() && std::isalnum(static_cast<unsigned char>(text[position])) != 0;
}

/// Replaces the secret; a short one only where it is a word of its own, because it may be a part of
/// any word.
void replaceAll(std::string& text, const std::string& secret) {
    constexpr std::size_t shortest = 4;
    for (auto found = text.find(secret); found != std::string::npos;
         found = text.find(secret, found)) {
        const bool isInWord =
            (found > 0 && isWordPart(text, found - 1)) || isWordPart(text, found + secret.size());
        if (secret.size() < shortest && isInWord) {
            found += secret.size();
            continue;
        }
        text.replace(found, secret.size(), mask);
        found += mask.size();
    }
}

/// Where the text that starts after a quote with so many backslashes in front ends. Inside of it
/// each backslash has one of its own in front, and one more for each level of nesting.
std::size_t endOfQuoted(const std::string& text, std::size_t start, std::size_t backslashes) {
    std::size_t count = 0;
    for (auto end = start; end < text.size() && text[end] != '\n'; ++end) {
        if (text[end] == '"' && count % (2 * (backslashes + 1)) == backslashes) {
            return end - backslashes;
        }
        count = text[end] == '\\' ? count + 1 : 0;
    }
    return std::min(text.find('\n', start), text.size());
}

/// The first position from this one on that has none of these characters.
std::size_t skip(const std::string& text, std::size_t start, const char* characters) {
    return std::min(text.find_first_not_of(characters, start), text.size());
}

/// Replaces what is in quotes after the word and a colon.
void replaceAfter(std::string& text, const std::string& word) {
    for (auto found = text.find(word); found != std::string::npos; found = text.find(word, found)) {
        found = skip(text, found + word.size(), "\\\"");
        const auto colon = skip(text, found, " ");
        if (text.compare(colon, 1, ":") != 0) {
            continue;
        }
        const auto opening = skip(text, colon + 1, " ");
        const auto mark = skip(text, opening, "\\");
        if (text.compare(mark, 1, "\"") != 0) {
            continue;
        }
        const auto value = mark + 1;
        text.replace(value, endOfQuoted(text, value, mark - opening) - value, mask);
        found = value;
    }
}

}  // namespace

void Redactor::add(const std::string& secret) {
    if (secret.empty()) {
        return;
    }
    const auto json = jsonForm(secret);
    m_forms.insert({secret, json, jsonForm(json), google::protobuf::CEscape(secret)});
}

void Redactor::addSaved(const std::string& text) {
    const google::protobuf::LogSilencer silencer;
    google::protobuf::Any value;
    Hox::Capability::StateMonitoring::Api::SnmpConfiguration configuration;
    // A central store has it as a text with the JSON form.
    for (const auto& form : {text, plainValue(text)}) {
        if (ObserverTree::valueFromText(form, value) && value.UnpackTo(&configuration)) {
            add(configuration.community());
            addBytes(form);
        }
    }
}

/// A form without names of fields still has the community.
void Redactor::addBytes(const std::string& form) {
    const auto members = ObserverTree::textMembersOf(form);
    const auto bytes = members.find("@bytes");
    if (bytes != members.end()) {
        add(bytes->second);
    }
}

std::string Redactor::redacted(std::string text) const {
    replaceAfter(text, "community");
    for (auto form = m_forms.rbegin(); form != m_forms.rend(); ++form) {
        replaceAll(text, *form);
    }
    return text;
}

}  // namespace Hox::Ctl
