#include "hox/testing/arguments.h"

namespace Hox::Testing {

Arguments::Arguments(const std::vector<std::string>& arguments) : m_texts{"program"} {
    m_texts.insert(m_texts.end(), arguments.begin(), arguments.end());
    m_pointers.reserve(m_texts.size() + 1);
    for (auto& text : m_texts) {
        m_pointers.push_back(text.data());
    }
    m_pointers.push_back(nullptr);
}

}  // namespace Hox::Testing
