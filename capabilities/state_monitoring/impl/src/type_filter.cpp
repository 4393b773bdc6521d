#include "type_filter.h"

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/timer/thread_cpu_time.h"

namespace Hox::Capability::StateMonitoring {

using Hox::CppUtil::threadCpuTime;

bool TypeFilter::accepts(std::string_view type) {
    if (m_expression.empty()) {
        return true;
    }
    if (m_last == nullptr || m_last->first != type) {
        auto known = m_verdicts.find(type);
        if (known == m_verdicts.end()) {
            known = m_verdicts.emplace(type, search(type)).first;
        }
        m_last = &*known;
    }
    return m_last->second;
}

bool TypeFilter::search(std::string_view type) {
    if (!m_regex) {
        m_deadline = threadCpuTime() + maxTime;
        m_regex.emplace(m_expression);
    }
    if (threadCpuTime() > m_deadline) {
        throw Hox::CppUtil::InvalidArgumentError(
            "Regular expression takes too long on the stored types", __FILE__, __LINE__);
    }
    return m_regex->search(type);
}

}  // namespace Hox::Capability::StateMonitoring
