#pragma once

#include <set>
#include <string>

namespace Hox::Ctl {

/// Replaces the communities of traps in texts for other eyes by "***": those that are known, in
/// plain text and in the escaped forms of JSON and of logs, and each text after the word
/// "community".
class Redactor {
public:
    /// Takes a community that may occur anywhere; nothing for an empty one.
    void add(const std::string& secret);

    /// Takes the community of a saved configuration of traps; nothing for another text.
    void addSaved(const std::string& text);

    /// The text without the communities.
    std::string redacted(std::string text) const;

private:
    void addBytes(const std::string& form);

    std::set<std::string> m_forms;
};

}  // namespace Hox::Ctl
