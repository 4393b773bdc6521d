#pragma once

#include <string>
#include <vector>

namespace Hox::CppUtil::RegexKit {

/// The text, so many times.
std::string repeated(const std::string& text, int times);

/// What std::regex says of the expression, "none" if it accepts it.
std::string libraryErrorOf(const std::string& expression);

/// What BoundedRegex says of the expression, "none" if it accepts it.
std::string boundedErrorOf(const std::string& expression);

/// Expects the answers of std::regex for each subject, for a part and for the whole.
void expectSameAnswers(const std::string& expression, const std::vector<std::string>& subjects);

}  // namespace Hox::CppUtil::RegexKit
