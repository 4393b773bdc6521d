#include "error_reason.h"

namespace Hox::Ctl {

namespace {

std::string bareText(std::string text, const std::string& prefix) {
    text.erase(text.rfind('('));
    return text.compare(0, prefix.size(), prefix) == 0 ? text.substr(prefix.size()) : text;
}

}  // namespace

std::string reasonOf(const ObserverTree::PathError& error) {
    return bareText(error.what(), "PathError: ");
}

std::string reasonOf(const Archive::ArchiveError& error) {
    return bareText(error.what(), "Archiving error: ");
}

}  // namespace Hox::Ctl
