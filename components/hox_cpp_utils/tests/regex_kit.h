#pragma once

#include <string>
#include <vector>

namespace Hox::CppUtil::RegexKit {

/// The text, repeated `times` times.
std::string repeated(const std::string& text, int times);

/// The error of std::regex for the expression, "none" if it accepts it.
std::string libraryErrorOf(const std::string& expression);

/// The error of BoundedRegex for the expression, "none" if it accepts it.
std::string boundedErrorOf(const std::string& expression);

/// Expects the same answers as std::regex for each subject, for a partial and for a whole match.
void expectSameAnswers(const std::string& expression, const std::vector<std::string>& subjects);

}  // namespace Hox::CppUtil::RegexKit
