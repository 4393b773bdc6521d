#include "hox/cpputil/assertion/assertion.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <utility>

namespace Hox::CppUtil {

void Assertion::setAbortOnFailure(bool abortOnFailure) {
    m_abortOnFailure = abortOnFailure;
}

void Assertion::setOutputHandler(OutputHandler outputHandler) {
    m_outputHandler = std::move(outputHandler);
}

void Assertion::setStacktraceProvider(StacktraceProvider stacktraceProvider) {
    m_stacktraceProvider = std::move(stacktraceProvider);
}

void Assertion::assertTrue(bool condition, const std::string& expression,
                           const std::string& message, const std::string& file, int line) const {
    if (condition) {
        return;
    }
    std::string failure = "Assertion failed: [" + expression + "] " + "\nat:" + file + ":" +
                          std::to_string(line) + "\n";
    if (!message.empty()) {
        failure += message + "\n";
    }
    if (m_abortOnFailure) {
        failure += "Aborting process!";
    }
    report(failure);
    report(m_stacktraceProvider ? "Stacktrace:\n" + m_stacktraceProvider()
                                : std::string("Stacktrace: Not available"));
    if (m_abortOnFailure) {
        std::abort();
    }
}

void Assertion::assertTrue(bool condition, const std::string& expression, const std::string& file,
                           int line) const {
    assertTrue(condition, expression, std::string(), file, line);
}

void Assertion::report(const std::string& text) const {
    if (m_outputHandler) {
        m_outputHandler(text);
    } else {
        std::cerr << text << std::endl;
    }
}

Assertion& getAssertion() {
    static std::mutex mutex;
    // Never destroyed: threads that outlive static destruction may still fail an assertion.
    static Assertion* assertion = nullptr;
    const std::lock_guard<std::mutex> lock(mutex);
    if (assertion == nullptr) {
        assertion = std::make_unique<Assertion>().release();
    }
    return *assertion;
}

}  // namespace Hox::CppUtil
