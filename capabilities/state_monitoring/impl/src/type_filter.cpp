#include "type_filter.h"

#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Capability::StateMonitoring {

bool TypeFilter::accepts(std::string_view type) {
    if (m_expression.empty()) {
        return true;
    }
    const auto known = m_verdicts.find(type);
    if (known != m_verdicts.end()) {
        return known->second;
    }
    const bool verdict = search(type);
    m_verdicts.emplace(type, verdict);
    return verdict;
}

bool TypeFilter::search(std::string_view type) {
    if (!m_regex) {
        m_regex.emplace(m_expression);
    }
    if (m_regex->steps() > maxSteps) {
        throw Hox::CppUtil::InvalidArgumentError(
            "Regular expression takes too long on the stored types", __FILE__, __LINE__);
    }
    return m_regex->search(type);
}

}  // namespace Hox::Capability::StateMonitoring
